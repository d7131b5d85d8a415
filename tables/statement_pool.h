// statement_pool.h - prepared statements of one text, lent to one reader at a time.
//
// Readers run side by side under the read lock, so none of them may share a statement; preparing a fresh one costs more
// than the query itself. The pool grows to the number of readers that were ever at work at once.
#ifndef TARN_TABLES_STATEMENT_POOL_H
#define TARN_TABLES_STATEMENT_POOL_H

#include "tables/xdatatable.h"

#include <memory>
#include <mutex>
#include <vector>

class CStatementPool {
  public:
    // A loan: resets the statement, clears its bindings and gives it back when it ends.
    class CLoan {
      public:
        CLoan(CStatementPool &pool, sqlite3 *pDB, const std::string &strSQL);
        ~CLoan();
        CLoan(const CLoan &) = delete;
        CLoan &operator=(const CLoan &) = delete;

        int Result() const { return m_iResult; } // 0, or the SQLite code of the failed preparation
        sqlite3_stmt *Handle() const { return m_pStatement->pStmt; }

      private:
        CStatementPool &m_pool;
        std::unique_ptr<_SQLStmt> m_pStatement;
        int m_iResult;
    };

    // Finalizes every statement that is not lent out. Call before the connection is closed.
    void Clear();

  private:
    std::unique_ptr<_SQLStmt> Take();
    void GiveBack(std::unique_ptr<_SQLStmt> pStatement) noexcept;

    std::mutex m_mutex; // guards the list alone; innermost lock
    std::vector<std::unique_ptr<_SQLStmt>> m_vecIdle;
};

#endif
