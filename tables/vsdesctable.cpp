#include "tables/vsdesctable.h"

#include "platform/nubbase.h"
#include "util/log.h"

#include <algorithm>
#include <cstring>
#include <sqlite3.h>
#include <string_view>

namespace {

constexpr char kLogSource[] = "vsdesctable";
constexpr int kNoDescription = -1;

// The part of a description that the table keeps.
std::string StoredText(const char *pszVirusDesc) {
    return std::string(pszVirusDesc, strnlen(pszVirusDesc, TARN_VIRUS_DESC_SIZE - 1));
}

// SQLite takes a text in double quotes for a column of the table where there is one of that name. Such a description
// would be compared with the wrong thing: "VD" meets every row.
bool IsReadAsColumn(const std::string &strVirusDesc) {
    constexpr const char *kNames[] = {"VID", "VD", "rowid", "oid", "_rowid_"};
    return std::any_of(std::begin(kNames), std::end(kNames),
                       [&](const char *pszName) { return sqlite3_stricmp(pszName, strVirusDesc.c_str()) == 0; });
}

} // namespace

CVirusTable::CVirusTable(sqlite3 *pDB) : CTableBase(pDB) {
    RegisterSQLs();
}

CVirusTable::~CVirusTable() = default;

void CVirusTable::RegisterSQLs() {
    RegisterTexts("VDT", {{"VID", "integer(4)", "primary key"}, {"VD", "varchar(64)", "not null"}});
}

uint32_t CVirusTable::InsertRecord(_VirusRecord *pRecord) {
    if (!CanRun(m_stInsert, pRecord)) {
        TARN_LOG_ERROR("[%s]arg m_pDB is null, or m_stInsert.pStmt is null, or pRecord is null.");
        return 1;
    }
    CStatement insertion(m_pDB, m_stInsert);
    insertion.Bind(1, pRecord->iVirusIndex);
    insertion.BindText(2, pRecord->szVirusDesc, strnlen(pRecord->szVirusDesc, sizeof pRecord->szVirusDesc));
    return insertion.Run();
}

uint32_t CVirusTable::QueryRecord(_VirusRecord *pRecord) {
    if (!CanRun(m_stQuery, pRecord)) {
        TARN_LOG_ERROR("[%s]arg m_pDB is null, or m_stQuery.pStmt is null, or pRecord is null.");
        return 1;
    }
    CStatement query(m_pDB, m_stQuery.strSQL.c_str()); // fresh: the map answers all but the first query of an index
    query.Bind(1, pRecord->iVirusIndex);
    if (const uint32_t ulResult = query.FetchRow(); ulResult != 0) {
        return ulResult;
    }
    const std::string_view text = query.Text(1);
    if (text.empty()) {
        return 1;
    }
    std::memset(pRecord->szVirusDesc, 0, sizeof pRecord->szVirusDesc);
    std::memcpy(pRecord->szVirusDesc, text.data(), std::min<size_t>(text.size(), TARN_VIRUS_DESC_SIZE - 1));
    return 0;
}

uint32_t CVirusTable::DeleteRecord(_VirusRecord *pRecord) {
    if (!CanRun(m_stDelete, pRecord)) {
        TARN_LOG_ERROR("[%s]arg m_pDB is null, or m_stDelete.pStmt is null, or pRecord is null.");
        return 1;
    }
    return DeleteByKey(pRecord->iVirusIndex);
}

uint32_t CVirusTable::QueryRecordCounts(int &iCounts) {
    if (m_pDB == nullptr) {
        TARN_LOG_ERROR("[%s]m_pDB is null.");
        return 1;
    }
    return CountRows(&iCounts);
}

// Searched by value, since the map is keyed by index; that still costs less than the query it saves.
bool CVirusTable::FindInMap(const std::string &strVirusDesc, int *pVirusIndex) {
    const std::lock_guard<std::mutex> lock(m_mapMutex);
    const auto it = std::find_if(m_mapVirusDesc.begin(), m_mapVirusDesc.end(),
                                 [&](const auto &entry) { return entry.second == strVirusDesc; });
    if (it == m_mapVirusDesc.end()) {
        return false;
    }
    *pVirusIndex = it->first;
    return true;
}

void CVirusTable::ForgetTexts() {
    const std::lock_guard<std::mutex> lock(m_mapMutex);
    m_mapVirusDesc.clear();
}

int CVirusTable::GetIndexByVirusDesc(const char *pszVirusDesc, int *pVirusIndex) {
    if (m_pDB == nullptr || pszVirusDesc == nullptr || pVirusIndex == nullptr) {
        TARN_LOG_ERROR("[%s]arg m_pDB or pMap or pszVirusDesc or pVirusIndex is null.");
        return 1;
    }
    if (*pszVirusDesc == '\0') {
        *pVirusIndex = kNoDescription;
        return 1;
    }
    const std::string strVirusDesc = StoredText(pszVirusDesc); // what is looked for is what is stored
    if (FindInMap(strVirusDesc, pVirusIndex)) {
        return 1;
    }
    // The caller holds the table lock for writing, so no two threads add the same text under two indices.
    return LoadRecords(&m_mapVirusDesc, strVirusDesc.c_str(), pVirusIndex) == 0 ? 1 : 0;
}

// New descriptions take the row count as their index. After a deletion that index may be taken, and the insert then
// replaces its row: kept, since stored records refer to these numbers.
uint32_t CVirusTable::AddDescription(const std::string &strVirusDesc, int *pVirusIndex) {
    int iCounts = 0;
    if (const uint32_t ulResult = QueryRecordCounts(iCounts); ulResult != 0) {
        return ulResult;
    }
    _VirusRecord record = {};
    record.iVirusIndex = iCounts;
    std::memcpy(record.szVirusDesc, strVirusDesc.c_str(),
                std::min<size_t>(strVirusDesc.size(), TARN_VIRUS_DESC_SIZE - 1));
    if (const uint32_t ulResult = InsertRecord(&record); ulResult != 0) {
        return ulResult;
    }
    *pVirusIndex = iCounts;
    return 0;
}

uint32_t CVirusTable::LoadRecords(std::map<int, std::string> *pMap, const char *pszVirusDesc, int *pVirusIndex) {
    if (m_pDB == nullptr || pMap == nullptr || pszVirusDesc == nullptr || pVirusIndex == nullptr) {
        TARN_LOG_ERROR("[%s]arg m_pDB or pMap or pszVirusDesc or pVirusIndex is null.");
        return 1;
    }
    if (*pszVirusDesc == '\0') {
        *pVirusIndex = kNoDescription;
        return 0;
    }
    // The description goes in as it is. One with a double quote would end the text early: malformed at best, at worst a
    // condition that another description's row meets.
    if (std::strchr(pszVirusDesc, '"') != nullptr) {
        return SQLITE_ERROR;
    }
    const std::string strVirusDesc = StoredText(pszVirusDesc);
    const char *const pszQuote = IsReadAsColumn(strVirusDesc) ? "'" : "\"";
    char szSQL[kStatementSize] = {};
    str_snprintf(szSQL, sizeof szSQL, "select %s from %s where %s = %s%s%s;", ColumnName(0).c_str(),
                 m_strTableName.c_str(), ColumnName(1).c_str(), pszQuote, strVirusDesc.c_str(), pszQuote);
    CStatement query(m_pDB, szSQL);
    (void)query.Step(); // the next line gives its result
    const int iStep = query.RetryWhileBusy(1);
    if (iStep == SQLITE_ROW) {
        *pVirusIndex = query.Int(0);
    } else if (iStep == SQLITE_DONE) {
        if (const uint32_t ulResult = AddDescription(strVirusDesc, pVirusIndex); ulResult != 0) {
            return ulResult;
        }
    } else {
        return static_cast<uint32_t>(iStep);
    }
    const std::lock_guard<std::mutex> lock(m_mapMutex);
    pMap->emplace(*pVirusIndex, strVirusDesc);
    return 0;
}

int CVirusTable::GetVirusDescByIndex(int iVirusIndex, char *pszVirusDesc, unsigned int ccbVirusDesc) {
    if (m_pDB == nullptr || pszVirusDesc == nullptr || ccbVirusDesc == 0) {
        TARN_LOG_ERROR("[%s]arg m_pDB or pszVirusDesc is null, or ccbVirusDesc is 0.");
        return 1;
    }
    if (iVirusIndex < 0) {
        std::memset(pszVirusDesc, 0, ccbVirusDesc);
        return 1;
    }
    {
        const std::lock_guard<std::mutex> lock(m_mapMutex);
        if (const auto it = m_mapVirusDesc.find(iVirusIndex); it != m_mapVirusDesc.end()) {
            str_snprintf(pszVirusDesc, ccbVirusDesc, "%s", it->second.c_str());
            return 1;
        }
    }
    _VirusRecord record = {};
    record.iVirusIndex = iVirusIndex;
    if (QueryRecord(&record) != 0) {
        return 0;
    }
    {
        // The table was read without the map's mutex, so another lookup may have noted the same text meanwhile.
        const std::lock_guard<std::mutex> lock(m_mapMutex);
        m_mapVirusDesc[iVirusIndex] = record.szVirusDesc;
    }
    str_snprintf(pszVirusDesc, ccbVirusDesc, "%s", record.szVirusDesc);
    return 1;
}
