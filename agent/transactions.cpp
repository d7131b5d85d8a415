// The three transaction operations, under the table lock held for writing. A busy database gets one more try with a
// time-out of 1.5 seconds.
#include "agent/connection.h"

#include "tables/statement.h"
#include "util/log.h"

#include <sqlite3.h>

namespace {

constexpr char kLogSource[] = "dbagent";

const char *BeginText(TransactionType type) {
    switch (type) {
    case TransactionType::Deferred:
        return "begin deferred;";
    case TransactionType::Immediate:
        return "begin immediate;";
    case TransactionType::Exclusive:
        return "begin exclusive;";
    default:
        return nullptr;
    }
}

} // namespace

uint32_t CConnection::StepTransaction(_SQLStmt &stStep) {
    CStatement step(m_pDB, stStep); // reset at its end: one left active by a busy database would keep the vacuum away
    (void)step.Step();
    const int iStep = step.RetryWhileBusy(1);
    m_bBusy = iStep == SQLITE_BUSY;
    return iStep == SQLITE_DONE ? TARN_OK : TARN_E_FAIL;
}

uint32_t CConnection::BeginTransactoion(TransactionType type) {
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
    return StepTransaction(m_stBegin);
}

uint32_t CConnection::CommitTransaction() {
    if (m_pDB == nullptr || m_stCommit.pStmt == nullptr) {
        TARN_LOG_ERROR("[%s][cache] db or commit transmit is null.");
        return TARN_E_FAIL;
    }
    if (m_failures.HasDamage()) {
        return TARN_E_FAIL; // nothing more goes into a damaged file
    }
    return StepTransaction(m_stCommit);
}

uint32_t CConnection::RollbackTransaction() {
    // Tests the commit statement on purpose: the two are prepared together.
    if (m_pDB == nullptr || m_stCommit.pStmt == nullptr) {
        TARN_LOG_ERROR("[%s][cache] db or commit transmit is null.");
        return TARN_E_FAIL;
    }
    return StepTransaction(m_stRollback);
}

bool CConnection::IsInTransaction() const {
    return sqlite3_get_autocommit(m_pDB) == 0;
}

const char *CConnection::LastErrorText() const {
    return sqlite3_errmsg(m_pDB);
}
