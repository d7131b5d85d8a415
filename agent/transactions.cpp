// The three transaction operations, under the table lock held for writing. A busy database gets one more try with a
// time-out of 1.5 seconds.
#include "agent/dbagent.h"

#include "interface/tarncache.h"
#include "tables/sqlite_support.h"
#include "util/log.h"

#include <sqlite3.h>

namespace {

constexpr char kLogSource[] = "dbagent";

const char *BeginText(CDataBaseAgent::TransactionType type) {
    switch (type) {
    case CDataBaseAgent::TRANSACTION_DEFERRED:
        return "begin deferred;";
    case CDataBaseAgent::TRANSACTION_IMMEDIATE:
        return "begin immediate;";
    case CDataBaseAgent::TRANSACTION_EXCLUSIVE:
        return "begin exclusive;";
    default:
        return nullptr;
    }
}

} // namespace

uint32_t CDataBaseAgent::RunEndStatement(sqlite3_stmt *pStmt) {
    sqlite3_reset(pStmt);
    int iStep = sqlite3_step(pStmt);
    if (iStep == SQLITE_BUSY) {
        sqlite3_busy_timeout(m_pDB, kBusyTimeoutMs);
        sqlite3_reset(pStmt);
        iStep = sqlite3_step(pStmt);
    }
    sqlite3_reset(pStmt); // one left active by a busy database would keep the vacuum away
    return iStep == SQLITE_DONE ? TARN_OK : TARN_E_FAIL;
}

uint32_t CDataBaseAgent::BeginTransactoion(TransactionType type) {
    if (m_pDB == nullptr) {
        TARN_LOG_ERROR("[%s]db is null.");
        return TARN_E_FAIL;
    }
    const char *pszText = BeginText(type);
    if (pszText == nullptr) {
        return TARN_E_INVALIDARG;
    }
    if (m_stBegin.strSQL != pszText) {
        m_stBegin.Finalize();
        m_stBegin.strSQL = pszText;
    }
    if (const int iResult = m_stBegin.Prepare(m_pDB); iResult != SQLITE_OK) {
        TARN_LOG_ERROR("[%s][cache] sqlite3_prepare_v2 failed with error code = %u",
                       static_cast<unsigned int>(iResult));
        return TARN_E_FAIL;
    }
    return RunEndStatement(m_stBegin.pStmt);
}

uint32_t CDataBaseAgent::CommitTransaction() {
    if (m_pDB == nullptr || m_stCommit.pStmt == nullptr) {
        TARN_LOG_ERROR("[%s][cache] db or commit transmit is null.");
        return TARN_E_FAIL;
    }
    return RunEndStatement(m_stCommit.pStmt);
}

uint32_t CDataBaseAgent::RollbackTransaction() {
    // Tests the commit statement on purpose: the two are prepared together.
    if (m_pDB == nullptr || m_stCommit.pStmt == nullptr) {
        TARN_LOG_ERROR("[%s][cache] db or commit transmit is null.");
        return TARN_E_FAIL;
    }
    return RunEndStatement(m_stRollback.pStmt);
}
