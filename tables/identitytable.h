// identitytable.h - table "CIT": for each row of the cache table the code that binds it to its file.
//
// No lock of its own: the agent's table lock guards it as it guards the cache table. A code whose record is gone is
// never asked for, and one that was made for an earlier record of the path does not fit the record that is there now,
// so leftovers cost space and nothing else.
#ifndef TARN_TABLES_IDENTITYTABLE_H
#define TARN_TABLES_IDENTITYTABLE_H

#include "tables/xdatatable.h"
#include "util/cache_record.h"

struct _IdentityRecord {
    int64_t liFilePathHash; // FPH, the key; the row's number, so that a row costs about 30 bytes
    IdentityCode code;      // IC
};

class TARN_API CIdentityTable : public CTableBase<_IdentityRecord> {
  public:
    explicit CIdentityTable(sqlite3 *pDB = nullptr);
    virtual ~CIdentityTable();

    void RegisterSQLs();

    [[nodiscard]] uint32_t InsertRecord(_IdentityRecord *pRecord) override;
    // A stored code of another length counts as none: 101.
    [[nodiscard]] uint32_t QueryRecord(_IdentityRecord *pRecord) override;
    [[nodiscard]] uint32_t DeleteRecord(_IdentityRecord *pRecord) override;

    // Lets every deletion from the cache table on this connection, whatever its kind, take the codes with it, in the
    // same transaction. The trigger lives in the connection alone; the file does not hold it. 0, or 1 (logged).
    [[nodiscard]] uint32_t FollowDeletions(const std::string &strCacheTable);
    // Deletes the codes without a record among the nMost keys above liAfter, which then becomes the last of these keys;
    // *pbEnd tells that there are no more. 0 or the SQLite code, liAfter unchanged.
    [[nodiscard]] uint32_t SweepAfter(const std::string &strCacheTable, size_t nMost, int64_t &liAfter, bool *pbEnd);
};

#endif
