// schema.h - the column registry from which every statement text of a table is built, and what creates and checks the
// stored schema.
#ifndef TARN_TABLES_SCHEMA_H
#define TARN_TABLES_SCHEMA_H

#include "interface/tarncache.h"
#include "tables/statement.h"

#include <cstdint>
#include <string>
#include <vector>

struct sqlite3;

// One column: name, SQL type text, and "primary key" or "not null".
struct _TableColumnValue {
    std::string strColumnName;
    std::string strColumnType;
    std::string strConstraint;
};

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
    _SQLStmt m_stQuery; // its handle only says that the table is there; readers use statements of their own

    // Builds every text from the name and the columns; what was registered before is replaced. Prepares nothing.
    void RegisterTexts(const std::string &strName, std::vector<_TableColumnValue> vecColumns);
    // Prepares the three statements that are not prepared yet. 0, or the SQLite codes OR-ed together.
    [[nodiscard]] int PrepareStatements();
    void FinalizeStatements();
    // "select count(*)" into *piCount. As QueryNumber.
    [[nodiscard]] uint32_t CountRows(int *piCount) const;

  protected:
    explicit CTableSchema(sqlite3 *pDB) : m_pDB(pDB) {}
    ~CTableSchema() = default;

    // Are the connection, the prepared statement and the record of an operation all there?
    bool CanRun(const _SQLStmt &statement, const void *pRecord) const {
        return m_pDB != nullptr && statement.pStmt != nullptr && pRecord != nullptr;
    }
    // Runs m_stDelete, which must be prepared. 0 (an absent key too) or the SQLite code.
    [[nodiscard]] uint32_t DeleteByKey(int64_t liKey);
    const std::string &ColumnName(int iPosition) const {
        return m_vecColumns[static_cast<size_t>(iPosition)].strColumnName;
    }
};

// Runs one statement without results; tries again once, with a 1500 ms time-out, when the database is busy (under a
// CBusyDeadline: waits until then).
// 0, or 1 (null connection, failed statement; logged).
[[nodiscard]] TARN_API int __implExecDDL(sqlite3 *pDB, const std::string &strSQL);

// Compares the stored CREATE text with the expected one, ignoring case. 0 when it matches; a SQLite code when the check
// cannot be prepared; else 1.
[[nodiscard]] TARN_API int __implCheckIntegrity(sqlite3 *pDB, const std::string &strCheckSQL, std::string strCreateSQL);

// True when the connection's last call failed for a reason that says nothing about the schema: the file is locked, the
// disk is full or failing, memory is short.
[[nodiscard]] TARN_API bool IsDatabaseOutOfReach(sqlite3 *pDB);

#endif
