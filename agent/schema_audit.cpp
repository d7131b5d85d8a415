#include "agent/schema_audit.h"

#include "tables/cachetable.h"
#include "tables/identitytable.h"
#include "tables/versiontable.h"
#include "tables/vsdesctable.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <sqlite3.h>

namespace {

constexpr int kMostOperations = 5000; // of SQLite's virtual machine: about 600 objects, where the cache has 8

// Stops a connection's statements after so many operations; reading the schema is one of them.
class COperationLimit {
  public:
    explicit COperationLimit(sqlite3 *pDB) : m_pDB(pDB) {
        sqlite3_progress_handler(
            m_pDB, kMostOperations, [](void *) { return 1; }, nullptr);
    }
    ~COperationLimit() { sqlite3_progress_handler(m_pDB, 0, nullptr, nullptr); }
    COperationLimit(const COperationLimit &) = delete;
    COperationLimit &operator=(const COperationLimit &) = delete;

  private:
    sqlite3 *m_pDB;
};

std::string Lower(std::string_view text) {
    std::string strLower(text);
    std::transform(strLower.begin(), strLower.end(), strLower.begin(),
                   [](unsigned char ch) { return static_cast<char>(std::tolower(ch)); });
    return strLower;
}

// SQLite stores a text without "if not exists" and without its semicolon.
std::string StoredText(const std::string &strCreateSQL) {
    constexpr std::string_view kUnlessThere = "if not exists ";
    std::string strText = Lower(strCreateSQL);
    if (const size_t nPlace = strText.find(kUnlessThere); nPlace != std::string::npos) {
        strText.erase(nPlace, kUnlessThere.size());
    }
    return strText.substr(0, strText.find(';'));
}

// The name of each of our objects and its stored text, both in lower case.
std::map<std::string, std::string> OurObjects() {
    std::map<std::string, std::string> mapTexts;
    const auto note = [&](const CTableSchema &table) {
        mapTexts[Lower(table.m_strTableName)] = StoredText(table.m_strCreateSQL);
    };
    const CCacheTable cacheTable;
    note(cacheTable);
    note(CVirusTable());
    note(CVersionTable());
    note(CIdentityTable(nullptr));
    mapTexts["ct_md5"] = StoredText(cacheTable.MD5IndexText());
    return mapTexts;
}

bool IsSQLitesOwn(std::string_view type, const std::string &strName) {
    return strName.starts_with("sqlite_") && (type == "table" || type == "index");
}

// Records that refer to descriptions which are gone would get those that are added from now on.
ESchema AskForDescribedRecords(sqlite3 *pDB) {
    int64_t liOne = 0;
    switch (QueryNumber(pDB, "select 1 from CT where FTV >> 48 >= 0 limit 1;", &liOne)) {
    case SQLITE_OK:
        return ESchema::Foreign;
    case SQLITE_DONE:
        return ESchema::Ours;
    default:
        return ESchema::Unreadable;
    }
}

} // namespace

ESchema AuditSchema(sqlite3 *pDB, std::string &strObject) {
    std::map<std::string, std::string> mapMissing = OurObjects();
    {
        const COperationLimit limit(pDB);
        CStatement objects(pDB, "select type, name, sql from sqlite_master;");
        while (objects.Step() == SQLITE_ROW) {
            const std::string strName = Lower(objects.Text(1));
            if (IsSQLitesOwn(objects.Text(0), strName)) {
                continue;
            }
            const auto it = mapMissing.find(strName);
            if (it == mapMissing.end() || Lower(objects.Text(2)) != it->second) {
                strObject = objects.Text(1);
                return ESchema::Foreign;
            }
            mapMissing.erase(it);
        }
        if (objects.Result() == SQLITE_INTERRUPT) {
            strObject = "thousands of objects";
            return ESchema::Foreign;
        }
        if (objects.Result() != SQLITE_DONE) {
            return ESchema::Unreadable;
        }
    }
    if (mapMissing.contains("ct") || !mapMissing.contains("vdt")) {
        return ESchema::Ours;
    }
    strObject = "records without their descriptions";
    return AskForDescribedRecords(pDB);
}
