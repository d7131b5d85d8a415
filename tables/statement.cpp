#include "tables/statement.h"

#include "tables/busy_deadline.h"
#include "tables/failure_note.h"
#include "tables/statement_pool.h"

#include <new>
#include <sqlite3.h>

int _SQLStmt::Prepare(sqlite3 *pDB) {
    const int iResult = pStmt != nullptr ? SQLITE_OK : sqlite3_prepare_v2(pDB, strSQL.c_str(), -1, &pStmt, nullptr);
    if (iResult != SQLITE_OK) {
        CFailureNote::Note(pDB, iResult);
    }
    return iResult;
}

void _SQLStmt::Finalize() {
    sqlite3_finalize(pStmt);
    pStmt = nullptr;
}

void _StatementFinalizer::operator()(sqlite3_stmt *pStmt) const {
    sqlite3_finalize(pStmt);
}

CConnectionGuard::CConnectionGuard(sqlite3 *pDB) : m_pMutex(sqlite3_db_mutex(pDB)) {
    sqlite3_mutex_enter(m_pMutex);
}

CConnectionGuard::~CConnectionGuard() {
    sqlite3_mutex_leave(m_pMutex);
}

CStatement::CStatement(sqlite3 *pDB, const char *pszSQL) : m_pDB(pDB) {
    Prepare(pszSQL);
}

CStatement::CStatement(sqlite3 *pDB, _SQLStmt &stKept) : m_pDB(pDB) {
    const CConnectionGuard lock(m_pDB);
    NoteCall(stKept.Prepare(m_pDB));
    m_pStmt = stKept.pStmt;
    sqlite3_reset(m_pStmt); // an earlier user outside of this class may have left it in the middle of its rows
}

CStatement::CStatement(sqlite3 *pDB, CStatementPool &pool, const char *pszSQL)
    : m_pDB(pDB), m_pPool(&pool), m_pOwn(pool.Take()), m_pStmt(m_pOwn.get()) {
    if (m_pStmt == nullptr) {
        Prepare(pszSQL);
    }
}

CStatement::~CStatement() {
    // A statement that is not reset keeps its lock on the file, and a bound text is the caller's and goes with him.
    if (m_pStmt != nullptr) { // sqlite3_clear_bindings does not take null
        sqlite3_clear_bindings(m_pStmt);
        sqlite3_reset(m_pStmt);
    }
    if (m_pPool != nullptr) {
        m_pPool->GiveBack(std::move(m_pOwn));
    }
}

void CStatement::Prepare(const char *pszSQL) {
    if (m_pDB == nullptr) {
        m_iResult = SQLITE_CANTOPEN; // the database is closed while it heals
        return;
    }
    const CConnectionGuard lock(m_pDB);
    NoteCall(sqlite3_prepare_v2(m_pDB, pszSQL, -1, &m_pStmt, nullptr));
    m_pOwn.reset(m_pStmt);
}

void CStatement::NoteBind(int iResult) {
    // A bind on a statement that was never prepared would spoil the code of the preparation.
    if (m_pStmt != nullptr) {
        m_iResult |= iResult;
    }
}

// Called under the connection's mutex. Without memory for the text its code's general text has to do.
void CStatement::NoteCall(int iResult) noexcept {
    m_iResult = iResult;
    if (iResult == SQLITE_OK || iResult == SQLITE_ROW || iResult == SQLITE_DONE) {
        return;
    }
    CFailureNote::Note(m_pDB, iResult);
    try {
        m_strError = sqlite3_errmsg(m_pDB);
    } catch (const std::bad_alloc &) {
        m_strError.clear();
    }
}

void CStatement::Bind(int iPosition, int64_t liValue) {
    NoteBind(sqlite3_bind_int64(m_pStmt, iPosition, liValue));
}

// The null pointer in the last place: SQLite uses the caller's bytes where they are and makes no copy.
void CStatement::BindText(int iPosition, const char *pszText, size_t nBytes) {
    NoteBind(sqlite3_bind_text(m_pStmt, iPosition, pszText, static_cast<int>(nBytes), nullptr));
}

void CStatement::BindBlob(int iPosition, const void *pBlob, size_t nBytes) {
    NoteBind(sqlite3_bind_blob(m_pStmt, iPosition, pBlob, static_cast<int>(nBytes), nullptr));
}

void CStatement::BindUnchecked(int iPosition, int64_t liValue) {
    (void)sqlite3_bind_int64(m_pStmt, iPosition, liValue);
}

int CStatement::Step() {
    // A statement that is done would start over without a word if it were stepped once more.
    if (m_iResult == SQLITE_OK || m_iResult == SQLITE_ROW) {
        const CConnectionGuard lock(m_pDB);
        NoteCall(sqlite3_step(m_pStmt));
    }
    return m_iResult;
}

int CStatement::RetryWhileBusy(int nMost, bool bSetTimeout) {
    // A preparation can find the database busy too; there is nothing to step then. And what has a deadline has waited.
    for (; m_iResult == SQLITE_BUSY && m_pStmt != nullptr && nMost > 0 && !CBusyDeadline::IsSet(); --nMost) {
        if (bSetTimeout) {
            sqlite3_busy_timeout(m_pDB, kBusyTimeoutMs);
        }
        sqlite3_reset(m_pStmt);
        m_iResult = SQLITE_OK;
        (void)Step(); // its result is in m_iResult
    }
    return m_iResult;
}

uint32_t CStatement::Run() {
    const int iStep = Step();
    return static_cast<uint32_t>(iStep == SQLITE_DONE ? SQLITE_OK : iStep);
}

uint32_t CStatement::FetchRow() {
    const int iStep = Step();
    return static_cast<uint32_t>(iStep == SQLITE_ROW ? SQLITE_OK : iStep);
}

int32_t CStatement::Int(int iColumn) const {
    return sqlite3_column_int(m_pStmt, iColumn);
}

int64_t CStatement::Int64(int iColumn) const {
    return sqlite3_column_int64(m_pStmt, iColumn);
}

std::string_view CStatement::Text(int iColumn) const {
    // The text first: reading it may convert it and change its length.
    const auto *pszText = reinterpret_cast<const char *>(sqlite3_column_text(m_pStmt, iColumn));
    return {pszText, pszText != nullptr ? static_cast<size_t>(sqlite3_column_bytes(m_pStmt, iColumn)) : 0};
}

std::string_view CStatement::Blob(int iColumn) const {
    const auto *pBlob = static_cast<const char *>(sqlite3_column_blob(m_pStmt, iColumn));
    return {pBlob, pBlob != nullptr ? static_cast<size_t>(sqlite3_column_bytes(m_pStmt, iColumn)) : 0};
}

const char *CStatement::ErrorText() const {
    return m_strError.empty() ? sqlite3_errstr(m_iResult) : m_strError.c_str();
}

uint32_t QueryNumber(sqlite3 *pDB, const char *pszSQL, int64_t *pliNumber) {
    CStatement query(pDB, pszSQL);
    const uint32_t ulResult = query.FetchRow();
    if (ulResult == SQLITE_OK) {
        *pliNumber = query.Int64(0);
    }
    return ulResult;
}
