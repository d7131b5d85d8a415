#include "tables/identitytable.h"

#include "platform/nubbase.h"

#include <sqlite3.h>

CIdentityTable::CIdentityTable(sqlite3 *pDB) : CTableSchema(pDB) {
    RegisterTexts("CIT", {{"FPH", "integer", "primary key"}, {"IC", "blob", "not null"}});
}

uint32_t CIdentityTable::Make() {
    if (__implExecDDL(m_pDB, m_strCreateSQL) != 0) {
        return TARN_E_FAIL;
    }
    return m_stInsert.Prepare(m_pDB) == SQLITE_OK ? TARN_OK : TARN_E_FAIL;
}

uint32_t CIdentityTable::Put(int64_t liFilePathHash, const IdentityCode &code) {
    CStatement insertion(m_pDB, m_stInsert);
    insertion.Bind(1, liFilePathHash);
    insertion.BindBlob(2, code.data(), code.size());
    return insertion.Run();
}

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
