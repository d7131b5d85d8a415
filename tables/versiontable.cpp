#include "tables/versiontable.h"

#include "util/log.h"

#include <sqlite3.h>

namespace {

constexpr char kLogSource[] = "versiontable";

} // namespace

CVersionTable::CVersionTable(sqlite3 *pDB) : CTableBase(pDB) {
    RegisterSQLs();
}

CVersionTable::~CVersionTable() {
    FinalizeStatements();
    CVersionTable::OnRelease();
}

void CVersionTable::RegisterSQLs() {
    RegisterTexts(
        "VST",
        {{"FV", "integer(4)", "primary key"}, {"VN", "integer(4)", "not null"}, {"LDT", "integer(8)", "not null"}});
}

uint32_t CVersionTable::InsertRecord(_VersionRecord *pRecord) {
    sqlite3_stmt *const pStmt = m_stInsert.pStmt;
    if (m_pDB == nullptr || pStmt == nullptr || pRecord == nullptr) {
        TARN_LOG_ERROR("[%s]arg m_pDB is null, or m_stInsert.pStmt is null, or pRecord is null.");
        return 1;
    }
    const CStatementUse use(pStmt);
    // Only the last bind decides: an unbound column is NULL, which the step then refuses.
    (void)sqlite3_bind_int(pStmt, 1, pRecord->iVersionKey);
    (void)sqlite3_bind_int(pStmt, 2, pRecord->iVersionNo);
    return use.RunIfBound(sqlite3_bind_int64(pStmt, 3, pRecord->liCreateTime));
}

uint32_t CVersionTable::QueryRecord(_VersionRecord *pRecord) {
    if (m_pDB == nullptr || m_stQuery.pStmt == nullptr || pRecord == nullptr) {
        TARN_LOG_ERROR("[%s]arg m_pDB is null, or m_stQuery.pStmt is null, or pRecord is null.");
        return 1;
    }
    _SQLStmt stQuery(m_stQuery.strSQL);
    int iResult = stQuery.Prepare(m_pDB);
    if (iResult == SQLITE_OK) {
        iResult = sqlite3_bind_int(stQuery.pStmt, 1, pRecord->iVersionKey);
    }
    if (iResult != SQLITE_OK) {
        return static_cast<uint32_t>(iResult);
    }
    iResult = sqlite3_step(stQuery.pStmt);
    if (iResult != SQLITE_ROW) {
        return static_cast<uint32_t>(iResult);
    }
    pRecord->iVersionNo = sqlite3_column_int(stQuery.pStmt, 1);
    pRecord->liCreateTime = sqlite3_column_int64(stQuery.pStmt, 2);
    return 0;
}

uint32_t CVersionTable::DeleteRecord(_VersionRecord *pRecord) {
    sqlite3_stmt *const pStmt = m_stDelete.pStmt;
    if (m_pDB == nullptr || pStmt == nullptr || pRecord == nullptr) {
        TARN_LOG_ERROR("[%s]arg m_pDB is null, or m_stDelete.pStmt is null, or pRecord is null.");
        return 1;
    }
    sqlite3_reset(pStmt);
    const CStatementUse use(pStmt);
    return use.RunIfBound(sqlite3_bind_int(pStmt, 1, pRecord->iVersionKey));
}

uint32_t CVersionTable::QueryRecordCounts(int &iCounts) {
    if (m_pDB == nullptr) {
        TARN_LOG_ERROR("[%s]arg m_pDB is null.");
        return 1;
    }
    return static_cast<uint32_t>(CountRows(&iCounts));
}
