// xdatatable.h - the table framework: one interface, one column registry from which every statement text is built, and
// the rule that a table whose stored schema differs is dropped and made anew.
//
// Result conventions differ by operation and are part of each contract: most return 0 for success and SQLite codes
// otherwise; some bulk operations return 1 for success and 0 for failure. Tables have no locks of their own: the
// agent's table lock guards them.
#ifndef TARN_TABLES_XDATATABLE_H
#define TARN_TABLES_XDATATABLE_H

#include "interface/tarncache.h"

#include <cstdint>
#include <string>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

// One column: name, SQL type text, and "primary key" or "not null".
struct _TableColumnValue {
    std::string strColumnName;
    std::string strColumnType;
    std::string strConstraint;
};

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
    int Prepare(sqlite3 *pDB);
    // Finalizes and nulls the handle.
    void Finalize();
};

// One use of a kept statement: resets it and clears its bindings on the way out.
class TARN_API CStatementUse {
  public:
    explicit CStatementUse(sqlite3_stmt *pStmt) : m_pStmt(pStmt) {}
    ~CStatementUse();
    CStatementUse(const CStatementUse &) = delete;
    CStatementUse &operator=(const CStatementUse &) = delete;

    // Runs a statement without rows, unless a bind before it failed (iBound: its code). 0 when it is done, else the
    // SQLite code.
    [[nodiscard]] uint32_t RunIfBound(int iBound) const;

  private:
    sqlite3_stmt *m_pStmt;
};

// What the agent asks of every table. Results are 0 for success. Destroyed through the concrete class only.
template <typename Record> class IBaseTable {
  public:
    virtual uint32_t OnCreate() = 0; // prepares the table's extra statements
    virtual void OnRelease() = 0;    // finalizes them
    virtual uint32_t CreateTable() = 0;
    virtual uint32_t CheckTableIntegrity() = 0;
    virtual uint32_t DropTable() = 0;
    virtual uint32_t InsertRecord(Record *pRecord) = 0;
    virtual uint32_t QueryRecord(Record *pRecord) = 0;  // fills the record found by its key
    virtual uint32_t DeleteRecord(Record *pRecord) = 0; // by key

  protected:
    IBaseTable() = default;
    ~IBaseTable() = default;
    IBaseTable(const IBaseTable &) = delete;
    IBaseTable &operator=(const IBaseTable &) = delete;
};

// Runs one statement without results; tries again once, with a 1500 ms time-out, when the database is busy.
// 0, or 1 (null connection, failed statement; logged).
TARN_API int __implExecDDL(sqlite3 *pDB, const std::string &strSQL);

// Compares the stored CREATE text with the expected one, ignoring case. 0 when it matches; a SQLite code when the check
// cannot be prepared; else 1.
TARN_API int __implCheckIntegrity(sqlite3 *pDB, std::string strCheckSQL, std::string strCreateSQL);

// The columns and generated texts that every table has, and the statements prepared from them.
class TARN_API CTableSchema {
  public:
    sqlite3 *m_pDB = nullptr; // not owned; set before any operation
    std::string m_strTableName;
    std::vector<_TableColumnValue> m_vecColumns; // in declaration order: the order of placeholders and of `select *`
    std::string m_strCheckSQL;
    std::string m_strCreateSQL;
    std::string m_strDropSQL;
    _SQLStmt m_stInsert;
    _SQLStmt m_stDelete;
    _SQLStmt m_stQuery; // its handle only says that the table was created; readers use statements of their own

    // Builds every text from the name and the columns; what was registered before is replaced. Prepares nothing.
    void RegisterTexts(const std::string &strName, std::vector<_TableColumnValue> vecColumns);
    // Prepares the three statements that are not prepared yet. 0, or the SQLite codes OR-ed together.
    int PrepareStatements();
    void FinalizeStatements();
    // "select count(*)" into *pCount. 0 or the SQLite code; *pCount is untouched on failure.
    int CountRows(int *pCount) const;

  protected:
    explicit CTableSchema(sqlite3 *pDB) : m_pDB(pDB) {}
    ~CTableSchema() = default;
};

// The schema operations, the same for every table.
template <typename Record> class CTableBase : public IBaseTable<Record>, public CTableSchema {
  public:
    uint32_t CreateTable() override {
        if (const int iResult = __implExecDDL(m_pDB, m_strCreateSQL); iResult != 0) {
            return static_cast<uint32_t>(iResult);
        }
        if (const int iResult = PrepareStatements(); iResult != 0) {
            FinalizeStatements();
            this->OnRelease();
            return static_cast<uint32_t>(iResult);
        }
        return this->OnCreate();
    }
    uint32_t CheckTableIntegrity() override {
        return static_cast<uint32_t>(__implCheckIntegrity(m_pDB, m_strCheckSQL, m_strCreateSQL));
    }
    uint32_t OpenExisting() {
        return CheckTableIntegrity() != 0 ? 1u : static_cast<uint32_t>(m_stQuery.Prepare(m_pDB));
    }
    uint32_t DropTable() override { return static_cast<uint32_t>(__implExecDDL(m_pDB, m_strDropSQL)); }

  protected:
    explicit CTableBase(sqlite3 *pDB) : CTableSchema(pDB) {}
    ~CTableBase() = default;
};

// True when the connection's last call failed for a reason that says nothing about the schema: the file is locked, the
// disk is full or failing, memory is short.
TARN_API bool IsDatabaseOutOfReach(sqlite3 *pDB);

// Create; when that fails or the stored schema differs, drop (the rows are lost) and create again. A database that is
// just out of reach keeps its rows. TARN_OK or TARN_E_FAIL.
template <typename T> uint32_t TableCreateCheckRebuild(T *pTable) {
    if (pTable->CreateTable() == 0 && pTable->CheckTableIntegrity() == 0) {
        return TARN_OK;
    }
    if constexpr (requires { pTable->m_pDB; }) {
        if (IsDatabaseOutOfReach(pTable->m_pDB)) {
            return TARN_E_FAIL;
        }
    }
    return pTable->DropTable() == 0 && pTable->CreateTable() == 0 ? TARN_OK : TARN_E_FAIL;
}

#endif
