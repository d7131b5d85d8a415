// versiontable.h - table "VST": which version of the cache module made the database file, and when.
#ifndef TARN_TABLES_VERSIONTABLE_H
#define TARN_TABLES_VERSIONTABLE_H

#include "tables/xdatatable.h"

struct _VersionRecord {
    int32_t iVersionKey;  // FV, the key; the agent uses 0
    int32_t iVersionNo;   // VN
    int64_t liCreateTime; // LDT: seconds since the epoch
};

class TARN_API CVersionTable : public CTableBase<_VersionRecord> {
  public:
    explicit CVersionTable(sqlite3 *pDB = nullptr);
    virtual ~CVersionTable();

    void RegisterSQLs();
    uint32_t OnCreate() override { return 0; }
    void OnRelease() override {}

    // Replaces the row with the record's key. 0 or the SQLite code; 1 for a null argument.
    uint32_t InsertRecord(_VersionRecord *pRecord) override;
    // 0: found and filled. 101 (SQLITE_DONE): no such row. Else another SQLite code; 1 for a null argument.
    uint32_t QueryRecord(_VersionRecord *pRecord) override;
    // 0 or the SQLite code; 1 for a null argument.
    uint32_t DeleteRecord(_VersionRecord *pRecord) override;
    // 0 or the SQLite code (iCounts untouched); 1 without a connection.
    uint32_t QueryRecordCounts(int &iCounts);
};

#endif
