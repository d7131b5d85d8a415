// cachetable.h - table "CT": one row per scanned file.
//
// No lock of its own. QueryRecord, the two counts, QueryRecordsAfter and QueryFilePathHashByMD5 may run side by side
// under the agent's read lock; everything else runs under its write lock or on the writer thread.
#ifndef TARN_TABLES_CACHETABLE_H
#define TARN_TABLES_CACHETABLE_H

#include "tables/statement_pool.h"
#include "tables/xdatatable.h"
#include "util/cache_record.h"

#include <set>
#include <string>
#include <vector>

class TARN_API CCacheTable : public CTableBase<_CacheRecord> {
  public:
    static constexpr int kMaxRecords = 1000000; // the cap of the table

    explicit CCacheTable(sqlite3 *pDB = nullptr);
    virtual ~CCacheTable();

    // Sets the name and builds the statement texts; calling it again changes nothing.
    void RegisterSQLs();

    // Makes the index over the MD5 columns where it is missing and prepares m_stSetQueryTime.
    // 0; 1 without a connection; else the SQLite code of the failed preparation.
    [[nodiscard]] uint32_t OnCreate() override;
    void OnRelease() override;
    [[nodiscard]] std::string MD5IndexText() const; // what makes that index

    [[nodiscard]] uint32_t InsertRecord(_CacheRecord *pRecord) override;
    [[nodiscard]] uint32_t QueryRecord(_CacheRecord *pRecord) override;
    // As QueryRecord, with the record's code from the identity table in the same read. *pbHasCode: there is one. For a
    // lookup (bAnswer) only what the file is compared with and what it is answered with is read, which costs less.
    [[nodiscard]] uint32_t QueryRecordAndCode(_CacheRecord *pRecord, IdentityCode *pCode, bool *pbHasCode,
                                              bool bAnswer = false);
    [[nodiscard]] uint32_t DeleteRecord(_CacheRecord *pRecord) override;

    // Adds 1 to the row's query count and sets its time stamp (seconds). An absent row changes nothing.
    void AddRecordQueryCount(int64_t liFilePathHash, int64_t liTimeStamp);
    // The same, and what came of it: 0 or the SQLite code.
    [[nodiscard]] uint32_t CountHit(int64_t liFilePathHash, int64_t liTimeStamp);
    // Row count. 0 or the SQLite code (*piCounts untouched); 1 for a null argument.
    [[nodiscard]] uint32_t QueryRecordsCount(int *piCounts);
    // Number of rows with this MD5. As QueryRecordsCount.
    [[nodiscard]] uint32_t CountRecordsByMD5(int64_t liHighMD5, int64_t liLowMD5, int64_t *pliCount);
    // The next page of the table: the rows with a path hash above the given one, ascending, nMost (2 or more) at most;
    // INT64_MIN asks for the first page. Fewer rows than nMost: there are no more. Rows whose key is no integer
    // (damage) are left out. 0 or the SQLite code (vecOut then holds what was read); 1 without a connection.
    [[nodiscard]] uint32_t QueryRecordsAfter(int64_t liFilePathHash, size_t nMost, std::vector<_CacheRecord> &vecOut);
    // Sets every row's query count. 0 or the SQLite code; 1 without a connection.
    [[nodiscard]] uint32_t ResetAllRecordsQueryCount(int iValue);
    // Empties the table. 1 success, 0 failure; 1 without a connection. A busy database is not tried again.
    [[nodiscard]] int DeleteAllRecords();

    // Bulk operations, each one statement.

    // From 1,000,000 rows on, deletes the excess over a million plus iExtraTenThousands * 10,000 rows, oldest time
    // stamp first. 0 or the SQLite code; 1 without a connection. *piDeleted (may be null) is set when a deletion was
    // done.
    [[nodiscard]] uint32_t DeleteExcessRecords(int iExtraTenThousands, int *piDeleted);
    // Deletes rows with a query count of at most iMaxQueryCount and a time stamp of at most liOlderThan (seconds).
    // 0 (also after a failed preparation) or the SQLite code; 1 without a connection. *piDeleted as above.
    [[nodiscard]] uint32_t DeleteExpireRecords(int iMaxQueryCount, int64_t liOlderThan, int *piDeleted);
    // Deletes every row with this MD5. 1 success, 0 failure; 1 without a connection.
    [[nodiscard]] int DeleteRecordByMD5(int64_t liHighMD5, int64_t liLowMD5);
    // Deletes every row whose verdict came from one of the engines. 1 success (an empty set too), 0 failure; 1 without
    // a connection.
    [[nodiscard]] int BatchDeleteRecordsByEngineIds(std::set<int16_t> &setEngineIds);
    // Deletes every row of one engine, which is given by its 16 bits as they are stored: the statement above knows
    // engines below 32768 only. As BatchDeleteRecordsByEngineIds.
    [[nodiscard]] int DeleteRecordsByEngine(uint16_t usEngine);
    // Appends one new record, zeroed path, for each row with this MD5. 1 success, 0 failure; 1 without a connection.
    // The caller frees the records with delete, after a failure too.
    [[nodiscard]] int QueryFilePathHashByMD5(int64_t liHighMD5, int64_t liLowMD5,
                                             std::vector<_CacheRecordEx *> &vecOut);
    // "(3,7,12)" in ascending order; "()" for an empty set.
    [[nodiscard]] std::string EngineSetToStr(std::set<int16_t> &setEngineIds);

    _SQLStmt m_stSetQueryTime; // adds a hit to a row
    _SQLStmt m_stDeleteByMD5;  // prepared by its first use

  private:
    void BuildSetQueryTime();
    void FormatMD5Query(char (&szSQL)[kStatementSize], const char *pszWhat, int64_t liHighMD5, int64_t liLowMD5) const;

    CStatementPool m_queryPool;
    CStatementPool m_codePool;   // of QueryRecordAndCode
    CStatementPool m_answerPool; // likewise, for lookups
};

#endif
