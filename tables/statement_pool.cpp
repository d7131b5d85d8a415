#include "tables/statement_pool.h"

StatementHandle CStatementPool::Take() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    // Room for everything that is out is made here, where a lack of memory can still be reported: GiveBack runs in a
    // destructor.
    m_vecIdle.reserve(m_vecIdle.size() + m_nLent + 1);
    ++m_nLent;
    if (m_vecIdle.empty()) {
        return nullptr;
    }
    StatementHandle pStatement = std::move(m_vecIdle.back());
    m_vecIdle.pop_back();
    return pStatement;
}

void CStatementPool::GiveBack(StatementHandle pStatement) noexcept {
    const std::lock_guard<std::mutex> lock(m_mutex);
    --m_nLent; // also for a loan that came to nothing
    if (pStatement != nullptr) {
        m_vecIdle.push_back(std::move(pStatement));
    }
}

void CStatementPool::Clear() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_vecIdle.clear();
}
