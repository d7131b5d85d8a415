#include "tables/statement_pool.h"

#include <new>
#include <sqlite3.h>

CStatementPool::CLoan::CLoan(CStatementPool &pool, sqlite3 *pDB, const std::string &strSQL)
    : m_pool(pool), m_pStatement(pool.Take()), m_iResult(SQLITE_OK) {
    if (m_pStatement == nullptr) {
        m_pStatement = std::make_unique<_SQLStmt>(strSQL);
        m_iResult = m_pStatement->Prepare(pDB);
    }
}

CStatementPool::CLoan::~CLoan() {
    if (m_iResult == SQLITE_OK) {
        sqlite3_reset(m_pStatement->pStmt);
        sqlite3_clear_bindings(m_pStatement->pStmt);
        m_pool.GiveBack(std::move(m_pStatement));
    }
}

void CStatementPool::Clear() {
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_vecIdle.clear();
}

std::unique_ptr<_SQLStmt> CStatementPool::Take() {
    const std::lock_guard<std::mutex> guard(m_mutex);
    if (m_vecIdle.empty()) {
        return nullptr;
    }
    std::unique_ptr<_SQLStmt> pStatement = std::move(m_vecIdle.back());
    m_vecIdle.pop_back();
    return pStatement;
}

void CStatementPool::GiveBack(std::unique_ptr<_SQLStmt> pStatement) noexcept {
    const std::lock_guard<std::mutex> guard(m_mutex);
    try {
        m_vecIdle.push_back(std::move(pStatement));
    } catch (const std::bad_alloc &) {
        // The statement is finalized instead of kept.
    }
}
