// xdatatable.h - the table framework: the interface of every table, and the rule that one whose stored schema differs
// is dropped and made anew.
//
// Result conventions differ by operation and are part of each contract: most return 0 for success and SQLite codes
// otherwise; some bulk operations return 1 for success and 0 for failure. Tables have no locks of their own: the
// agent's table lock guards them.
#ifndef TARN_TABLES_XDATATABLE_H
#define TARN_TABLES_XDATATABLE_H

#include "interface/tarncache.h"
#include "tables/schema.h"

#include <cstdint>

// What the agent asks of every table. 0 for success, else a SQLite code; 1 for a null connection, statement or record.
// Destroyed through the concrete class only.
template <typename Record> class IBaseTable {
  public:
    [[nodiscard]] virtual uint32_t OnCreate() = 0; // prepares the table's extra statements
    virtual void OnRelease() = 0;                  // finalizes them
    [[nodiscard]] virtual uint32_t CreateTable() = 0;
    [[nodiscard]] virtual uint32_t CheckTableIntegrity() = 0;
    [[nodiscard]] virtual uint32_t DropTable() = 0;
    // Replaces the whole row with the record's key.
    [[nodiscard]] virtual uint32_t InsertRecord(Record *pRecord) = 0;
    // Fills the record found by its key. 101 (SQLITE_DONE): no such row, record unchanged.
    [[nodiscard]] virtual uint32_t QueryRecord(Record *pRecord) = 0;
    // By key; an absent row is no failure.
    [[nodiscard]] virtual uint32_t DeleteRecord(Record *pRecord) = 0;

  protected:
    IBaseTable() = default;
    ~IBaseTable() = default;
    IBaseTable(const IBaseTable &) = delete;
    IBaseTable &operator=(const IBaseTable &) = delete;
};

// The schema operations, the same for every table.
template <typename Record> class CTableBase : public IBaseTable<Record>, public CTableSchema {
  public:
    [[nodiscard]] uint32_t OnCreate() override { return 0; } // most tables have no extra statements
    void OnRelease() override {}
    [[nodiscard]] uint32_t CreateTable() override {
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
    // Lets go of the statements and goes over to another connection; null: to none.
    void MoveTo(sqlite3 *pDB) {
        FinalizeStatements();
        this->OnRelease();
        m_pDB = pDB;
    }
    // Instead of CreateTable, on a connection for reading: looks whether the table is there as expected and prepares
    // what queries need. Executes and changes nothing; insertions and deletions stay refused. 0; 1 when the table is
    // absent, different or cannot be read; else the SQLite code of a failed preparation. Failed checks are logged.
    [[nodiscard]] uint32_t OpenExisting() {
        const uint32_t ulResult = CheckTableIntegrity();
        return ulResult != 0 ? ulResult : static_cast<uint32_t>(m_stQuery.Prepare(m_pDB));
    }
    [[nodiscard]] uint32_t CheckTableIntegrity() override {
        return static_cast<uint32_t>(__implCheckIntegrity(m_pDB, m_strCheckSQL, m_strCreateSQL));
    }
    [[nodiscard]] uint32_t DropTable() override { return static_cast<uint32_t>(__implExecDDL(m_pDB, m_strDropSQL)); }

  protected:
    explicit CTableBase(sqlite3 *pDB) : CTableSchema(pDB) {}
    ~CTableBase() { FinalizeStatements(); }
};

// Create; when that fails or the stored schema differs, drop (the rows are lost) and create again. A database that is
// just out of reach keeps its rows. TARN_OK or TARN_E_FAIL.
template <typename T> [[nodiscard]] uint32_t TableCreateCheckRebuild(T *pTable) {
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
