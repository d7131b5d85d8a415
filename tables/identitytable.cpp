#include "tables/identitytable.h"

#include "platform/nubbase.h"
#include "util/log.h"

#include <algorithm>
#include <sqlite3.h>

namespace {

constexpr char kLogSource[] = "identitytable";

} // namespace

CIdentityTable::CIdentityTable(sqlite3 *pDB) : CTableBase(pDB) {
    RegisterSQLs();
}

CIdentityTable::~CIdentityTable() = default;

void CIdentityTable::RegisterSQLs() {
    // "integer primary key" to the letter makes the key the row's own number, which saves an index.
    RegisterTexts("CIT", {{"FPH", "integer", "primary key"}, {"IC", "blob", "not null"}});
}

uint32_t CIdentityTable::InsertRecord(_IdentityRecord *pRecord) {
    if (!CanRun(m_stInsert, pRecord)) {
        TARN_LOG_ERROR("[%s]m_pDB or m_stInsert.pStmt or pRecord is null.");
        return 1;
    }
    CStatement insertion(m_pDB, m_stInsert);
    insertion.Bind(1, pRecord->liFilePathHash);
    insertion.BindBlob(2, pRecord->code.data(), pRecord->code.size());
    return insertion.Run();
}

uint32_t CIdentityTable::QueryRecord(_IdentityRecord *pRecord) {
    if (!CanRun(m_stQuery, pRecord)) {
        TARN_LOG_ERROR("[%s]m_pDB or m_stQuery.pStmt or pRecord is null.");
        return 1;
    }
    CStatement query(m_pDB, m_stQuery.strSQL.c_str());
    query.Bind(1, pRecord->liFilePathHash);
    if (const uint32_t ulResult = query.FetchRow(); ulResult != 0) {
        return ulResult;
    }
    const std::string_view code = query.Blob(1);
    if (code.size() != pRecord->code.size()) {
        return SQLITE_DONE; // damage: the record is then scanned again
    }
    std::copy(code.begin(), code.end(), pRecord->code.begin());
    return 0;
}

uint32_t CIdentityTable::DeleteRecord(_IdentityRecord *pRecord) {
    if (!CanRun(m_stDelete, pRecord)) {
        TARN_LOG_ERROR("[%s]m_pDB or m_stDelete.pStmt or pRecord is null.");
        return 1;
    }
    return DeleteByKey(pRecord->liFilePathHash);
}

// A trigger, because records are deleted by many kinds of statement, and so none of them can forget the codes. A
// temporary one, so that the file holds nothing but tables, which a library that knows no codes leaves alone.
uint32_t CIdentityTable::FollowDeletions(const std::string &strCacheTable) {
    return static_cast<uint32_t>(__implExecDDL(
        m_pDB, "create temp trigger if not exists " + m_strTableName + "_D after delete on main." + strCacheTable +
                   " begin delete from " + m_strTableName + " where FPH = old.FPH; end;"));
}

// Group by group, so that the caller can let lookups in between: a million codes in one statement would hold the table
// lock for seconds.
uint32_t CIdentityTable::SweepAfter(const std::string &strCacheTable, size_t nMost, int64_t &liAfter, bool *pbEnd) {
    char szSQL[kStatementSize] = {};
    // The keys of this group, as one query for its end and one deletion inside it.
    str_snprintf(szSQL, sizeof szSQL,
                 "select max(FPH), count(*) from (select FPH from %s where FPH > %lld order by FPH limit %zu);",
                 m_strTableName.c_str(), static_cast<long long>(liAfter), nMost);
    CStatement group(m_pDB, szSQL);
    if (const uint32_t ulResult = group.FetchRow(); ulResult != 0) {
        return ulResult;
    }
    const int64_t liLast = group.Int64(0);
    const bool bEnd = static_cast<size_t>(group.Int64(1)) < nMost;
    if (group.Int64(1) > 0) { // max() of no row at all is NULL and reads as 0, a key like any other
        str_snprintf(szSQL, sizeof szSQL,
                     "delete from %s where FPH > %lld and FPH <= %lld and not exists "
                     "(select 1 from %s where %s.FPH = %s.FPH);",
                     m_strTableName.c_str(), static_cast<long long>(liAfter), static_cast<long long>(liLast),
                     strCacheTable.c_str(), strCacheTable.c_str(), m_strTableName.c_str());
        if (const uint32_t ulResult = CStatement(m_pDB, szSQL).Run(); ulResult != 0) {
            return ulResult;
        }
        liAfter = liLast;
    }
    *pbEnd = bEnd;
    return 0;
}
