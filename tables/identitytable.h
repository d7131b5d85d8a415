// identitytable.h - table "CIT": for each row of the cache table the code that binds it to its file.
//
// No lock of its own: the agent's table lock guards it as it guards the cache table. A code whose record is gone is
// never asked for, and one that was made for an earlier record of the path does not fit the record that is there now,
// so leftovers cost space and nothing else.
#ifndef TARN_TABLES_IDENTITYTABLE_H
#define TARN_TABLES_IDENTITYTABLE_H

#include "tables/schema.h"
#include "util/cache_record.h"

// Less than the other tables: nobody asks it for a single code, see CCacheTable::QueryRecordAndCode.
class TARN_API CIdentityTable : public CTableSchema {
  public:
    // FPH, the key, is the row's own number, so that a row costs about 30 bytes; IC is the code.
    explicit CIdentityTable(sqlite3 *pDB);
    CIdentityTable(const CIdentityTable &) = delete;
    CIdentityTable &operator=(const CIdentityTable &) = delete;
    ~CIdentityTable() { FinalizeStatements(); }

    // Makes the table where it is missing. TARN_OK; TARN_E_FAIL.
    [[nodiscard]] uint32_t Make();
    // As CTableBase::MoveTo.
    void MoveTo(sqlite3 *pDB) {
        FinalizeStatements();
        m_pDB = pDB;
    }
    // Whether it is there as expected.
    [[nodiscard]] bool IsThere() const { return __implCheckIntegrity(m_pDB, m_strCheckSQL, m_strCreateSQL) == 0; }
    // Replaces the code of this key. 0 or the SQLite code.
    [[nodiscard]] uint32_t Put(int64_t liFilePathHash, const IdentityCode &code);

    // Lets every deletion from the cache table on this connection, whatever its kind, take the codes with it, in the
    // same transaction. The trigger lives in the connection alone; the file does not hold it. 0, or 1 (logged).
    [[nodiscard]] uint32_t FollowDeletions(const std::string &strCacheTable);
    // Deletes the codes without a record among the nMost keys above liAfter, which then becomes the last of these keys;
    // *pbEnd tells that there are no more. 0 or the SQLite code, liAfter unchanged.
    [[nodiscard]] uint32_t SweepAfter(const std::string &strCacheTable, size_t nMost, int64_t &liAfter, bool *pbEnd);
};

#endif
