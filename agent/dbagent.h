// dbagent.h - the one object behind the library's entry points: a thin face over the connection, the write queue and
// the tables.
//
// Threads: any number of callers; one writer thread (only in full mode), which also runs all maintenance.
//
// Lock order, outermost first:
//   1. g_DBMutex (interface): start-up and shut-down, never two of them at once.
//   2. m_connection.m_tableLock: the connection and the table objects.
//      Read: lookups, counting, queries of the reverse lookup.
//      Write: the virus index of an addition, the writer's batches, every deletion.
//   2. m_queue.m_mutex: the front queues and the flags. Never held together with the table lock.
//   3. the small mutexes inside the tables (description map, statement pool), the start gate and the walk's progress.
// The vacuum and the integrity probe run on the connection with no lock of ours; SQLite's own mutex serialises them.
#ifndef TARN_AGENT_DBAGENT_H
#define TARN_AGENT_DBAGENT_H

#include "agent/connection.h"
#include "agent/counters.h"
#include "agent/database_health.h"
#include "agent/find_progress.h"
#include "agent/protection.h"
#include "agent/scan_bracket.h"
#include "agent/start_gate.h"
#include "agent/write_queue.h"
#include "platform/nubcl_ev.h"
#include "tables/cachetable.h"
#include "tables/versiontable.h"
#include "tables/vsdesctable.h"
#include "util/dbconfig.h"
#include "util/dbfileutil.h"

#include <memory>
#include <string>
#include <vector>

// How the agent was started.
enum class EMode : int { Full = TARN_MODE_FULL, Direct = TARN_MODE_DIRECT, Reader = TARN_MODE_READER };

class TARN_API CDataBaseAgent {
  public:
    using TransactionType = ::TransactionType;
    CDataBaseAgent();
    virtual ~CDataBaseAgent(); // frees what is still queued, without writing it
    CDataBaseAgent(const CDataBaseAgent &) = delete;
    CDataBaseAgent &operator=(const CDataBaseAgent &) = delete;

    // --- dbagent.cpp: start-up and shut-down, under g_DBMutex

    // Locks, configuration, free space, database, tables; mode 0 also starts the writer thread. TARN_OK; TARN_E_FAIL,
    // TARN_E_OUTOFMEMORY or a table's code, with everything taken down again. A writer that cannot be started is logged
    // only, as is one without a timer unless the key "protect" is set.
    [[nodiscard]] uint32_t AgentInit(int mode);
    // Opens what is there, for questions alone. Also TARN_NOT_CACHED: there is no database.
    [[nodiscard]] uint32_t AgentInitReader();
    // Ends the writer (it writes both queues a last time), then releases everything. The result of CloseDB.
    uint32_t AgentUnInit();
    [[nodiscard]] bool IsReader() const { return m_eMode == EMode::Reader; }
    // As LocalCacheWaitReady and LocalCacheFlush. Any thread.
    [[nodiscard]] uint32_t WaitReady(uint32_t ulTimeoutMs);
    [[nodiscard]] uint32_t Flush(uint32_t ulTimeoutMs, uint64_t *pullLost);

    // --- database_file.cpp: start-up and shut-down only, no lock

    // Opens the database, rebuilding it when SQLite cannot. TARN_OK or TARN_E_FAIL (closed again).
    [[nodiscard]] uint32_t OpenDB();
    // Deletes the file, or moves to the fallback name when it cannot be deleted, and opens an empty database.
    [[nodiscard]] uint32_t RebuildDB();
    // Makes and checks the three tables and the version row. TARN_OK; TARN_E_FAIL, TARN_E_OUTOFMEMORY: no tables.
    [[nodiscard]] uint32_t DBTablesInit();
    // Writes the version row when there is none. 0, a SQLite code, or 0xFFFFFFFF without a connection.
    [[nodiscard]] uint32_t CheckModuleVersion();
    void DBTablesUnInit();
    uint32_t CloseDB() { return m_connection.CloseDB(); } // TARN_OK, or TARN_E_FAIL: the connection stays

    // --- lookup_add.cpp: any thread. The forms with a status take it from the caller instead of the file system.

    // TARN_OK (found), TARN_NOT_CACHED, TARN_E_INVALIDARG, TARN_E_FAIL. Table lock for reading, then queue mutex.
    // md5_text: 33 bytes. On a miss nothing but out's description may have been written.
    [[nodiscard]] uint32_t CacheLookup(const char *file, char *md5_text, _SCAN_FILE_RESULT *out);
    [[nodiscard]] uint32_t CacheLookupStat(const char *file, const struct stat &status, char *md5_text,
                                           _SCAN_FILE_RESULT *out);
    // TARN_OK (queued), TARN_E_INVALIDARG, TARN_E_OUTOFMEMORY, TARN_E_FAIL. Table lock for writing, then queue mutex.
    [[nodiscard]] uint32_t CacheAdd(const char *file, const char *md5_text, _SCAN_FILE_RESULT *in);
    [[nodiscard]] uint32_t CacheAddStat(const char *file, const struct stat &status, const char *md5_text,
                                        const _SCAN_FILE_RESULT *in);

    [[nodiscard]] CScanBracket &ScanBracket() { return m_scanBracket; } // any thread

    // --- questions.cpp: any thread, table lock for reading; no hit is counted

    // The stored verdict, whether the file is unchanged or not. TARN_OK: *pbCurrent says whether the file is as it was;
    // TARN_NOT_CACHED, TARN_E_INVALIDARG, TARN_E_FAIL.
    [[nodiscard]] uint32_t CachePeek(const char *file, char *md5_text, _SCAN_FILE_RESULT *out, bool *pbCurrent);
    // Record, file and reason; the size field is not touched. TARN_OK or TARN_E_FAIL.
    [[nodiscard]] uint32_t Explain(const char *file, _LOCAL_CACHE_EXPLANATION &explanation);
    // As LocalCacheEnumerate and LocalCacheCheck (check.cpp). No lock is held while the caller's function runs.
    [[nodiscard]] uint32_t EnumerateRecords(int (*onRecord)(const _LOCAL_CACHE_RECORD *, void *), void *context);
    [[nodiscard]] uint32_t CheckSoundness(void (*onFinding)(const char *, void *), void *context);

    // --- writer.cpp: the writer thread

    static void *UpdateWorkThread(void *agent);
    void UpdateRecords();
    // Decides what the coming pass writes, swapping front and back containers.
    void PreDoJobs() REQUIRES(m_queue.m_mutex) { m_queue.SwapDue(); }
    // Writes the back containers in one transaction and empties them. Takes the table lock for writing.
    void DoBatchWriteJobs() EXCLUDES(m_connection.m_tableLock);
    // One pass: PreDoJobs under the queue mutex (after up to a second of waiting for work, if asked), then
    // DoBatchWriteJobs. Returns whether the agent was running when the queues were swapped.
    bool RunWritePass(bool bWait) EXCLUDES(m_connection.m_tableLock, m_queue.m_mutex);

    // --- the connection's: table lock held for writing. TARN_OK or TARN_E_FAIL.

    [[nodiscard]] uint32_t BeginTransactoion(TransactionType type) REQUIRES(m_connection.m_tableLock) {
        return m_connection.BeginTransactoion(type); // TARN_E_INVALIDARG for an unknown type
    }
    [[nodiscard]] uint32_t CommitTransaction() REQUIRES(m_connection.m_tableLock) {
        return m_connection.CommitTransaction();
    }
    uint32_t RollbackTransaction() REQUIRES(m_connection.m_tableLock) { return m_connection.RollbackTransaction(); }

    // --- statistics.cpp: any thread

    // TARN_OK; TARN_E_INVALIDARG; TARN_E_FAIL when counting failed (*out is filled, with the size known before).
    // Wakes the writer. Queue mutex, then table lock for reading.
    [[nodiscard]] uint32_t GetCacheStatistic(_DBStatistics *out);
    // Everything but the size field. TARN_OK or TARN_E_FAIL. Table lock for reading, then queue mutex.
    [[nodiscard]] uint32_t GetInfo(_LOCAL_CACHE_INFO &info);
    // How many records carry this MD5. TARN_OK or TARN_E_FAIL. Table lock for reading.
    [[nodiscard]] uint32_t CountByFileHash(const char *md5_text, uint64_t &ullCount);

    // --- deletions.cpp: any thread. TARN_OK, also when there was nothing to delete; TARN_E_FAIL. Table lock for
    // writing.

    [[nodiscard]] uint32_t DeleteRecordByFileHash(const char *md5_text); // TARN_E_FAIL for null too
    [[nodiscard]] uint32_t DeleteAllRecords();
    [[nodiscard]] uint32_t DeleteByEngine(int16_t sEngine);
    [[nodiscard]] uint32_t DeleteByPath(const char *file);

    // --- cleaning.cpp: the writer thread; TrimRecords any thread

    // The expiry pass: due once per configured interval. Table lock for writing across deletion and counter reset.
    void DoCleanCachesJob();
    static void CleanTimerCallback(cl_timerplus *pTimer);
    // Trims a table of a million records or more. Table lock for writing.
    void TimerCleanCaches();
    [[nodiscard]] uint32_t TrimRecords();

    // --- the connection's too: the writer thread
    // "vacuum;", without the table lock. 1 success (also without a connection), 0 failure.
    int64_t AdjustDBToActualSize();
    [[nodiscard]] int64_t CheckDBIntegrity(); // "pragma quick_check;". 1 sound (also without a connection), 0 not

    // --- engine_flags.cpp: the writer thread at its start

    // Does the named marker file exist? *flag then is the value it stands for.
    [[nodiscard]] bool ReadCleanCacheFlag(const char *name, int32_t *flag);
    // Removes the named marker (and the update-cache file with the hash marker). False only for a null name.
    bool ResetCleanCacheFlag(const char *name);
    // The engines whose bit is set in flag; none for 0 and for -1. Table lock for writing.
    void GetEngineListByFlag(int32_t flag, EngineSet &engines);
    // Deletes the records of the flag's engines; 0 none, -1 every record. TARN_OK or TARN_E_FAIL.
    uint32_t CheckDeleteAllCacheRecordsByFlag(int32_t flag);
    uint32_t CheckDeleteAllCacheRecords(); // consumes "clean_engine_flag". TARN_OK; TARN_E_FAIL without a marker

    // --- update_cache.cpp: the writer thread at its start

    // Consumes the marker "clean_engine_hash_flag" and the digest list. TARN_OK; TARN_E_FAIL (no marker, or the list
    // stays for the next start).
    uint32_t CheckDeleteFrepCacheRecords();
    // Reads, deciphers and applies the list. TARN_OK; TARN_E_FAIL, TARN_E_OUTOFMEMORY, TARN_E_INVALIDARG (no version
    // line or no digest line), TARN_E_ABORT (shut-down).
    [[nodiscard]] uint32_t DeleteCacheRecordsByFileMD5();
    // Applies the digest lines of text, 1000 to a transaction. Codes as above.
    [[nodiscard]] uint32_t ParseAndDeleteCacheRecordsByFileMD5(char *text);
    // One batch in one transaction, table lock for writing. A batch that was rolled back cleanly reports TARN_OK.
    [[nodiscard]] uint32_t BatchDeleteCacheRecordsByFileMD5(std::vector<CacheMD5> &batch);

    // With the key "protect" instead of the two checks: carries out what is withdrawn, and leaves in force what fails.
    void ApplyWithdrawals();

    // --- reverse_lookup.cpp: any thread

    // Fills each MD5's vector with records and paths, which the caller frees; may take long. TARN_OK; TARN_E_FAIL: all
    // empty. Table lock for reading, once per MD5; none during the walk.
    [[nodiscard]] uint32_t LookupFilePathsByHashs(RecordMap &requests);
    [[nodiscard]] CFindProgress &FindProgress() { return m_findProgress; } // any thread: whom the walk tells

  private:
    class CBatch; // batch.cpp: what one pass writes

    class CRepair; // database_repair.h
    bool MayServe() const { return m_health.IsServing() && !m_connection.Failures().HasDamage(); }
    uint32_t CreateLocks();
    uint32_t StartDatabase();
    uint32_t StartReader();
    uint32_t TakeStart(uint32_t (CDataBaseAgent::*start)());
    uint32_t OpenExistingDB();
    uint32_t OpenExistingTables() NO_THREAD_SAFETY_ANALYSIS; // start-up only, as the next two: nobody else is there
    uint32_t StartProtection() NO_THREAD_SAFETY_ANALYSIS;
    bool HasExpectedTables();
    void PublishExpiry();
    void TakeUpdates();
    uint32_t StartWriter();
    bool StartCleanTimer();
    bool MakeTables();
    uint32_t CheckTables() NO_THREAD_SAFETY_ANALYSIS;
    bool MayAnswer();
    uint32_t AnswerLookup(const char *file, int64_t liPathHash, const struct stat &status, char *md5_text,
                          _SCAN_FILE_RESULT *out);
    // 0, 101 (no such row) or a SQLite code. bHasCode is false for a record that must not answer.
    uint32_t ReadRecord(_CacheRecord &record, bool &bHasCode) REQUIRES_SHARED(m_connection.m_tableLock);
    // Takes the file's status and asks for its file system. 0 or an errno value.
    int IdentifyFile(const char *file, struct stat &status, uint64_t &ullFileSystem);
    bool QueryHit(const _FileIdentity &file, _CacheRecord &record, char *md5_text, _SCAN_FILE_RESULT *out);
    void NoteHit(int64_t liPathHash);
    uint32_t QueueRecord(const char *file, const struct stat &status, std::unique_ptr<_CacheRecord> pRecord,
                         const char *md5_text, const _SCAN_FILE_RESULT *in);
    uint32_t FindVirusIndex(const std::string &strVirusDesc, int16_t &sVirusIndex, uint32_t &ulDatabase);
    void SweepCodes() EXCLUDES(m_connection.m_tableLock);
    bool CopyRecordOut(const _CacheRecord &stored, _LOCAL_CACHE_RECORD &record)
        REQUIRES_SHARED(m_connection.m_tableLock);
    bool DeleteDigests(const std::vector<CacheMD5> &digests) EXCLUDES(m_connection.m_tableLock);
    void ApplyBatch(std::vector<CacheMD5> &batch);
    bool ApplyList() EXCLUDES(m_connection.m_tableLock);
    void RetryWithdrawals();
    bool DeleteBatchAndCommit(const std::vector<CacheMD5> &batch) REQUIRES(m_connection.m_tableLock);
    bool QueryRequests(RecordMap &requests);

    EMode m_eMode = EMode::Full; // set at start-up
    _DBConfig m_config = {};     // filled at start-up; its running values are then the writer thread's alone
    _Counters m_counters;
    CConnection m_connection;
    CDatabaseHealth m_health;
    CWriteQueue m_queue;
    CStartGate m_startGate;
    CStartGate m_timerGate; // of the clean timer
    CFindProgress m_findProgress;
    CScanBracket m_scanBracket;
    std::unique_ptr<CCacheTable> m_pCacheTable PT_GUARDED_BY(m_connection.m_tableLock);
    std::unique_ptr<CVirusTable> m_pVirusTable PT_GUARDED_BY(m_connection.m_tableLock);
    std::unique_ptr<CVersionTable> m_pVersionTable;
    std::unique_ptr<CProtection> m_pProtection; // null without the key "protect"; set at start-up

    pthread_t m_writerThread = 0;          // set at start-up, joined at shut-down
    cl_timerplus *m_pCleanTimer = nullptr; // the writer thread's alone
    bool m_bListRefused = false;           // the writer thread's alone: a list of digests stays
};

#endif
