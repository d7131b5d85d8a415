// connection.h - the connection to the database: opening, transactions, compaction, closing.
//
// Opening and closing run at start-up and shut-down only and take no lock. The log lines carry the names of the agent's
// methods of the same names, which pass the calls on.
#ifndef TARN_AGENT_CONNECTION_H
#define TARN_AGENT_CONNECTION_H

#include "agent/checked_vfs.h"
#include "agent/own_reading.h"
#include "interface/tarncache.h"
#include "tables/busy_deadline.h"
#include "tables/failure_note.h"
#include "util/locks.h"

#include <string>

enum class TransactionType : int { Deferred = 1, Immediate = 2, Exclusive = 3 };

class TARN_API CConnection {
  public:
    // Guards the connection and the table objects on it. Read: lookups, counting, queries. Write: the virus index of an
    // addition, the writer's batches, every deletion.
    CRwLock m_tableLock;

    CConnection() = default;
    CConnection(const CConnection &) = delete;
    CConnection &operator=(const CConnection &) = delete;

    // Opens the file, which must be regular and nobody else's, making it when it is missing. False: the connection only
    // reports its error; Abandon it.
    [[nodiscard]] bool Open(const std::string &strPath);
    void RefuseStrangers() { m_vfs.RefuseStrangers(); } // when it is opened
    // Opens a file that is there, for reading alone; the caller's CBusyDeadline says how long it waits for a writer.
    // TARN_OK; TARN_E_FAIL (closed again).
    [[nodiscard]] uint32_t OpenForReading(const std::string &strPath);
    // Notes failures from here on, and lets nothing in the file have a say beyond its rows.
    void Distrust();
    // Whatever failed on this connection since then; any thread.
    [[nodiscard]] CFailureNote &Failures() { return m_failures; }
    [[nodiscard]] const CFailureNote &Failures() const { return m_failures; }
    // Another look at the file beside this connection; its descriptor is closed behind the connection.
    [[nodiscard]] COwnReading &OwnReading() { return m_ownReading; }
    // Why the last call failed, and what the system said.
    [[nodiscard]] std::string LastFailure() const;
    // Sets the page cache (SQLite pages) and prepares commit and rollback. TARN_OK; TARN_E_FAIL (closed again).
    [[nodiscard]] uint32_t Configure(int32_t lCachePages);
    // Commit and rollback. A host may have been kept from them by a lock at the start. TARN_OK; TARN_E_FAIL (logged).
    [[nodiscard]] uint32_t PrepareEndStatements();
    // Closes a connection whose opening failed.
    void Abandon();
    void FinalizeStatements();
    // TARN_OK (also without a connection); TARN_E_FAIL: the connection stays.
    uint32_t CloseDB();

    [[nodiscard]] bool IsOpen() const { return m_pDB != nullptr; }
    [[nodiscard]] sqlite3 *Handle() const { return m_pDB; }

    // TARN_OK or TARN_E_FAIL. A busy database gets one more try with a time-out of 1.5 seconds.
    [[nodiscard]] uint32_t BeginTransactoion(TransactionType type) REQUIRES(m_tableLock); // TARN_E_INVALIDARG: type
    [[nodiscard]] uint32_t CommitTransaction() REQUIRES(m_tableLock);
    uint32_t RollbackTransaction() REQUIRES(m_tableLock);
    // Did the last of these three find the database locked by another process?
    [[nodiscard]] bool WasBusy() const REQUIRES(m_tableLock) { return m_bBusy; }
    // False once SQLite itself has ended the transaction, as a full disk makes it do.
    [[nodiscard]] bool IsInTransaction() const REQUIRES(m_tableLock);
    // What SQLite says of the last call.
    [[nodiscard]] const char *LastErrorText() const REQUIRES(m_tableLock);

    // "vacuum;" and "pragma quick_check;", on the writer thread, without the table lock: SQLite's own mutex of the
    // connection keeps lookups out meanwhile. 1: success, sound (also without a connection); 0: not.
    int64_t AdjustDBToActualSize(int32_t lCachePages);
    [[nodiscard]] int64_t CheckDBIntegrity();

    // Size of the file and the unused part of it, in bytes. False when they cannot be read.
    [[nodiscard]] bool MeasureFile(uint64_t &ullFileBytes, uint64_t &ullFreeBytes) const REQUIRES_SHARED(m_tableLock);

  private:
    bool HasUsableMode();
    uint32_t StepTransaction(_SQLStmt &stStep);

    CCheckedVfs m_vfs; // outlives the connection
    COwnReading m_ownReading;
    CFailureNote m_failures;
    sqlite3 *m_pDB = nullptr; // set at start-up, cleared at shut-down
    bool m_bBusy = false;
    _SQLStmt m_stBegin; // the begin statement last used
    _SQLStmt m_stCommit = _SQLStmt("commit;");
    _SQLStmt m_stRollback = _SQLStmt("rollback;");
};

#endif
