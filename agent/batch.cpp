// One pass's batch, on the writer thread under the table lock held for writing.
//
// What another process's lock keeps from being written is dropped, or, with the key "protect", kept for the next pass:
// 1. The batch ends at the first statement that finds the database busy, without waiting: lookups wait for its lock.
// 2. Only its commit waits, until its deadline. Meanwhile SQLite lets no new reader in, so that a row of them cannot
// keep
//    the commit away for good.
// 3. It is rolled back, and its records and hits go back in front of what came meanwhile.
// 4. The last batch, at shut-down, has no next pass: its deadline covers all of it, and then what it holds is lost.
#include "agent/dbagent.h"

#include "util/log.h"

#include <sqlite3.h>

namespace {

constexpr char kLogSource[] = "dbagent";
constexpr char kFunction[] = "DoBatchWriteJobs";

} // namespace

class CDataBaseAgent::CBatch {
  public:
    explicit CBatch(CDataBaseAgent &agent)
        : m_agent(agent), m_queue(agent.m_queue), m_bKeeps(agent.m_config.bProtect) {}
    void Write();

  private:
    void Insert() REQUIRES(m_agent.m_connection.m_tableLock);
    uint32_t InsertRecord(_CacheRecord &record) REQUIRES(m_agent.m_connection.m_tableLock);
    void CountHits() REQUIRES(m_agent.m_connection.m_tableLock);
    bool Commit() REQUIRES(m_agent.m_connection.m_tableLock);
    void WriteAll() REQUIRES(m_agent.m_connection.m_tableLock);
    bool Keep();

    CDataBaseAgent &m_agent;
    CWriteQueue &m_queue;
    const bool m_bKeeps;  // what another process's lock keeps from being written
    size_t m_nStored = 0; // of the records
    bool m_bHeld = false; // another process holds the database, and the batch is to be kept
};

void CDataBaseAgent::DoBatchWriteJobs() {
    CBatch(*this).Write();
}

void CDataBaseAgent::CBatch::Write() {
    {
        const CBusyDeadline deadline(m_bKeeps && m_queue.IsLastBatch());
        const CWriteLock lock(m_agent.m_connection.m_tableLock);
        if (m_agent.BeginTransactoion(TransactionType::Deferred) == TARN_OK) {
            WriteAll();
        } else {
            (void)m_agent.RollbackTransaction(); // the batch is dropped
        }
    }
    if (!m_bHeld || !Keep()) {
        m_queue.Settle(m_nStored);
    }
}

// False: it cannot be kept.
bool CDataBaseAgent::CBatch::Keep() {
    const size_t nRecords = m_queue.Records().size();
    const size_t nHits = m_queue.Hits().size();
    if (!m_queue.PutBack()) {
        TARN_LOG_AS(ELogLevel::Error, kFunction,
                    "[%s][cache] another process holds the database, %zu records and %zu hits are lost.", nRecords,
                    nHits);
        return false;
    }
    TARN_LOG_DEBUG_AS(kFunction, "[%s][cache] another process holds the database, %zu records and %zu hits wait.",
                      nRecords, nHits);
    return true;
}

void CDataBaseAgent::CBatch::WriteAll() {
    const size_t nRecords = m_queue.Records().size();
    Insert();
    const bool bInserted = m_nStored == nRecords;
    // A full disk makes SQLite end the transaction itself; each hit would then be a transaction of its own.
    bool bInTransaction = m_agent.m_connection.IsInTransaction();
    if (!bInTransaction) {
        m_nStored = 0;
        bInTransaction = m_agent.BeginTransactoion(TransactionType::Deferred) == TARN_OK;
    }
    if (bInTransaction && !m_bHeld) {
        CountHits();
    }
    if (!m_bHeld && Commit()) {
        return;
    }
    if (m_bHeld) {
        m_agent.m_counters.ulAdded.fetch_sub(static_cast<uint32_t>(m_nStored), std::memory_order_relaxed);
    } else if (bInserted) { // else the reason is logged already
        TARN_LOG_AS(ELogLevel::Error, kFunction,
                    "[%s][cache] commit failed, %zu records and %zu hits are dropped, err:%s.", nRecords,
                    m_queue.Hits().size(), m_agent.m_connection.LastErrorText());
    }
    (void)m_agent.RollbackTransaction(); // nothing of the batch is stored either way
    m_nStored = 0;
}

bool CDataBaseAgent::CBatch::Commit() {
    const CBusyDeadline deadline(m_bKeeps);
    const bool bCommitted = m_agent.CommitTransaction() == TARN_OK;
    m_bHeld = m_bKeeps && !bCommitted && m_agent.m_connection.WasBusy();
    return bCommitted;
}

void CDataBaseAgent::CBatch::CountHits() {
    for (const auto &[liFilePathHash, liHitTime] : m_queue.Hits()) {
        // A hit that cannot be counted for another reason is not worth a report.
        m_bHeld = m_agent.m_pCacheTable->CountHit(liFilePathHash, liHitTime) == SQLITE_BUSY && m_bKeeps;
        if (m_bHeld) {
            return;
        }
    }
}

// The record and, where codes are kept, its code. A record without one only misses. 0 or the SQLite code.
uint32_t CDataBaseAgent::CBatch::InsertRecord(_CacheRecord &record) {
    const uint32_t ulResult = m_agent.m_pCacheTable->InsertRecord(&record);
    return ulResult != 0 || m_agent.m_pProtection == nullptr
               ? ulResult
               : m_agent.m_pProtection->m_identity.m_table.Put(record.liFilePathHash, record.code);
}

// Up to the first record that cannot be inserted.
void CDataBaseAgent::CBatch::Insert() {
    for (const std::unique_ptr<_CacheRecord> &pRecord : m_queue.Records()) {
        if (VerdictVirusIndex(pRecord->liTreatVirus) >= 0 && pRecord->ulDatabase != m_agent.m_health.Generation()) {
            continue; // the database has been made anew since, and the index means another description or none
        }
        const uint32_t ulResult = InsertRecord(*pRecord);
        m_bHeld = ulResult == SQLITE_BUSY && m_bKeeps;
        if (ulResult != 0 && !m_bHeld) { // the rest of the batch is dropped; what was inserted is committed
            TARN_LOG_AS(ELogLevel::Error, kFunction, "[%s]InsertRecord failed with error code = %u", ulResult);
        }
        if (ulResult != 0) {
            return;
        }
        ++m_nStored;
        m_agent.m_counters.ulAdded.fetch_add(1, std::memory_order_relaxed);
    }
}
