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

    // Sets the name and builds the statement texts; calling it again changes nothing.
    void RegisterSQLs();

    [[nodiscard]] uint32_t InsertRecord(_VersionRecord *pRecord) override;
    [[nodiscard]] uint32_t QueryRecord(_VersionRecord *pRecord) override;
    [[nodiscard]] uint32_t DeleteRecord(_VersionRecord *pRecord) override;
    // 0 or the SQLite code (iCounts untouched); 1 without a connection.
    [[nodiscard]] uint32_t QueryRecordCounts(int &iCounts);
};

#endif
