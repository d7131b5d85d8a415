// statement_pool.h - prepared statements of one text, lent to one reader at a time.
//
// Readers run side by side under the read lock, so none of them may share a statement; preparing a fresh one costs more
// than the query itself. The pool grows to the number of readers that were ever at work at once.
#ifndef TARN_TABLES_STATEMENT_POOL_H
#define TARN_TABLES_STATEMENT_POOL_H

#include "tables/statement.h"

#include <mutex>
#include <vector>

// Any thread. CStatement does the lending.
class CStatementPool {
  public:
    // An idle statement, or null: the caller prepares one.
    [[nodiscard]] StatementHandle Take();
    // Takes back a statement that is reset and has no bindings. Null ends the loan of one that could not be prepared.
    void GiveBack(StatementHandle pStatement) noexcept;
    // Finalizes every statement that is not lent out. Call before the connection is closed.
    void Clear();

  private:
    std::mutex m_mutex; // guards the two below; innermost lock
    std::vector<StatementHandle> m_vecIdle;
    size_t m_nLent = 0;
};

#endif
