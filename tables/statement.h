// statement.h - a prepared statement's owner, and one use of a statement.
#ifndef TARN_TABLES_STATEMENT_H
#define TARN_TABLES_STATEMENT_H

#include "interface/tarncache.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_mutex;
struct sqlite3_stmt;
class CStatementPool;

constexpr int kBusyTimeoutMs = 1500;    // one wait for a database that another process holds
constexpr size_t kStatementSize = 1024; // bytes of a formatted statement with its NUL

// A statement and its text. Owns the handle: finalizes it when destroyed.
struct TARN_API _SQLStmt {
    sqlite3_stmt *pStmt = nullptr;
    std::string strSQL;

    _SQLStmt() = default;
    explicit _SQLStmt(std::string strText) : strSQL(std::move(strText)) {}
    _SQLStmt(const _SQLStmt &) = delete;
    _SQLStmt &operator=(const _SQLStmt &) = delete;
    ~_SQLStmt() { Finalize(); }

    // Prepares the text; a handle that is there is kept. 0 or the SQLite code.
    [[nodiscard]] int Prepare(sqlite3 *pDB);
    // Finalizes and nulls the handle.
    void Finalize();
};

struct _StatementFinalizer {
    void operator()(sqlite3_stmt *pStmt) const;
};
using StatementHandle = std::unique_ptr<sqlite3_stmt, _StatementFinalizer>;

// Holds the connection's own (recursive) mutex: no other thread's call comes between a call and its error text.
class CConnectionGuard {
  public:
    explicit CConnectionGuard(sqlite3 *pDB);
    ~CConnectionGuard();
    CConnectionGuard(const CConnectionGuard &) = delete;
    CConnectionGuard &operator=(const CConnectionGuard &) = delete;

  protected:
    sqlite3_mutex *m_pMutex;
};

// One use of a statement, by one thread: prepare, bind, step, read. After a failure it stays inert: every later call
// answers with the failing code and does not reach the database, so the result needs to be looked at once, at the end.
// The connection and what is bound must outlive the use. Without a connection a text of its own fails.
class TARN_API CStatement {
  public:
    // A text of its own: prepared here, finalized at the end.
    CStatement(sqlite3 *pDB, const char *pszSQL);
    // A kept statement, prepared here by its first use: reset, and its bindings cleared, at the start and at the end.
    CStatement(sqlite3 *pDB, _SQLStmt &stKept);
    // A loan from a pool whose statements all have this text: given back, reset and cleared, at the end.
    CStatement(sqlite3 *pDB, CStatementPool &pool, const char *pszSQL);
    ~CStatement();
    CStatement(const CStatement &) = delete;
    CStatement &operator=(const CStatement &) = delete;

    // Bind the parameter at a position from 1 on. The codes of failed binds are OR-ed together and keep the statement
    // from being stepped. Texts and blobs are not copied.
    void Bind(int iPosition, int64_t liValue);
    void BindText(int iPosition, const char *pszText, size_t nBytes);
    void BindBlob(int iPosition, const void *pBlob, size_t nBytes);
    // A bind whose failure is not held against the statement: it runs with NULL in that place.
    void BindUnchecked(int iPosition, int64_t liValue);

    // SQLITE_ROW, SQLITE_DONE or the failing code. A statement that is done or failed is not run again.
    [[nodiscard]] int Step();
    // While the last step found the database busy: resets and steps again, up to nMost times, each time with the
    // time-out of 1500 ms set on the connection before (if asked), which stays set. Under a CBusyDeadline the step has
    // waited already, and nothing is done. The result of the last step.
    [[nodiscard]] int RetryWhileBusy(int nMost, bool bSetTimeout = true);
    // Steps once. 0 when the statement is done, else what the step gave.
    [[nodiscard]] uint32_t Run();
    // Steps once. 0 on a row; 101 (SQLITE_DONE): no row; else the failing code.
    [[nodiscard]] uint32_t FetchRow();

    // A column of the row just read, from 0 on. Texts and blobs (empty for NULL) live until the next step.
    int32_t Int(int iColumn) const;
    int64_t Int64(int iColumn) const;
    std::string_view Text(int iColumn) const;
    std::string_view Blob(int iColumn) const;

    // 0 before the first step; then what the last step gave, or the code of the first failure.
    int Result() const { return m_iResult; }
    // SQLite's own message of the failed preparation or step, whatever other threads did since on the connection; for
    // a failed bind the general text of its code.
    const char *ErrorText() const;

  private:
    void Prepare(const char *pszSQL);
    void NoteBind(int iResult);
    void NoteCall(int iResult) noexcept;

    sqlite3 *m_pDB;
    CStatementPool *m_pPool = nullptr; // the lender
    StatementHandle m_pOwn;            // fresh or lent, none for a kept statement
    sqlite3_stmt *m_pStmt = nullptr;   // null: could not be prepared
    int m_iResult = 0;
    std::string m_strError;
};

// The first column of a query's first row. 0 or the SQLite code (101: no row); *pliNumber is untouched on failure.
[[nodiscard]] uint32_t QueryNumber(sqlite3 *pDB, const char *pszSQL, int64_t *pliNumber);

#endif
