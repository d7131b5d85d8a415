// The writer thread: swaps the queues out under the queue mutex, then writes them under the table lock held for
// writing.
#include "agent/dbagent.h"

#include "platform/call_guard.h"
#include "util/log.h"

#include <ctime>
#include <exception>
#include <sqlite3.h>
#include <sys/time.h>

namespace {

constexpr char kLogSource[] = "dbagent";
constexpr uint64_t kCleanPeriodMs = 1800000; // 30 minutes
constexpr long kPassPauseNs = 500000000;

// The next whole second but one at most: a wait of up to a second.
timespec NextSecond() {
    timeval now = {};
    (void)gettimeofday(&now, nullptr);
    return {now.tv_sec + 1, 0};
}

// One piece of start-up work; running out of memory in it must not end the writer.
template <typename Step> void RunStartStep(Step step) {
    try {
        step();
    } catch (const std::exception &error) {
        TARN_LOG_AS(LOG_FAILURE, "UpdateRecords", "[%s][cache] maintenance ended early: %s", error.what());
    }
}

} // namespace

void *CDataBaseAgent::UpdateWorkThread(void *agent) {
    if (agent == nullptr) {
        TARN_LOG_ERROR("[%s]arg pData is null.");
        return nullptr;
    }
    const CWriteSignalGuard noWriteSignals; // this thread writes: a file-size limit must not kill the host
    try {
        static_cast<CDataBaseAgent *>(agent)->UpdateRecords();
    } catch (const std::exception &error) {
        TARN_LOG_SEVERE("[%s][cache] writer thread ended: %s", error.what());
        static_cast<CDataBaseAgent *>(agent)->m_bRunning = false;
    }
    return nullptr;
}

void CDataBaseAgent::UpdateRecords() {
    RunStartStep([this] { (void)CheckDeleteAllCacheRecords(); }); // no marker is the normal case
    RunStartStep([this] { (void)CheckDeleteFrepCacheRecords(); });
    m_pCleanTimer = cl_timerplus_start(0, kCleanPeriodMs, CleanTimerCallback, this, 0, 0);
    if (m_pCleanTimer == nullptr) {
        TARN_LOG_SEVERE("[%s]Start timer failed");
        m_bRunning = false;
        return;
    }
    RunStartStep([this] {
        DoCleanCachesJob();
        (void)AdjustDBToActualSize(); // logged there; the cache works uncompacted too
    });
    ++m_config.lDBQueryCounts;
    (void)WriteDBConfig(&m_config); // a start that is not counted only makes the next expiry pass stricter
    // Ends behind a pass that saw the end of running: what was queued during the pass before is written too.
    while (RunWritePass(true)) {
        cl_ev_loop_nowait(1);
        cl_event_loop_once(); // the clean timer's callback runs here
        if (cl_ev_cb_count() == 0) {
            PauseUnlessStopped();
        }
    }
    TARN_LOG_DEBUG("[%s]UpdateRecords work thread exit normally!");
    cl_timerplus_stop(m_pCleanTimer);
    cl_timerplus_close(m_pCleanTimer);
    m_pCleanTimer = nullptr;
    m_bRunning = false;
}

// Work that comes in meanwhile waits for the next pass; only the shut-down cuts the pause short. A wall clock that is
// set back must not stretch it.
void CDataBaseAgent::PauseUnlessStopped() {
    constexpr long kSecondNs = 1000000000;
    timespec deadline = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_nsec += kPassPauseNs;
    deadline.tv_sec += deadline.tv_nsec / kSecondNs;
    deadline.tv_nsec %= kSecondNs;
    const CMutexLock lock(m_queueMutex);
    if (m_bRunning) {
        m_stopCondition.WaitUntil(m_queueMutex, deadline);
    }
}

bool CDataBaseAgent::RunWritePass(bool bWait) {
    bool bRunning = false;
    {
        const CMutexLock lock(m_queueMutex);
        if (bWait && m_bRunning && m_lFlags <= 0 && (m_vecAddFront.empty() || m_mapHitFront.empty())) {
            m_queueCondition.WaitUntil(m_queueMutex, NextSecond());
        }
        PreDoJobs();
        bRunning = m_bRunning;
    }
    DoBatchWriteJobs();
    return bRunning;
}

void CDataBaseAgent::PreDoJobs() {
    if (!m_bRunning || (!m_vecAddFront.empty() && (m_lFlags == 0 || (m_lFlags & FLAG_ADD_QUEUE_FULL) != 0))) {
        m_vecAddFront.swap(m_vecAddBack);
        m_lFlags &= ~FLAG_ADD_QUEUE_FULL;
    }
    // With the flags as they are now: a full hit map goes first, queued additions wait for a later pass.
    if (!m_bRunning || (!m_mapHitFront.empty() && (m_lFlags == 0 || (m_lFlags & FLAG_HIT_MAP_FULL) != 0))) {
        m_mapHitFront.swap(m_mapHitBack);
        m_lFlags &= ~FLAG_HIT_MAP_FULL;
    }
}

void CDataBaseAgent::DoBatchWriteJobs() {
    {
        const CWriteLock lock(m_tableLock);
        if (BeginTransactoion(TRANSACTION_DEFERRED) == 0) {
            const bool bInserted = WriteBackQueue();
            if (CommitTransaction() != 0) {
                if (bInserted) { // else the reason is logged already
                    TARN_LOG_ERROR("[%s][cache] commit failed, %zu records and %zu hits are dropped, err:%s.",
                                   m_vecAddBack.size(), m_mapHitBack.size(), sqlite3_errmsg(m_pDB));
                }
                (void)RollbackTransaction(); // the batch is dropped either way
            }
        } else {
            (void)RollbackTransaction();
        }
    }
    m_vecAddBack.clear();
    m_mapHitBack.clear();
}

bool CDataBaseAgent::WriteBackQueue() {
    constexpr char kFunction[] = "DoBatchWriteJobs";
    bool bInserted = true;
    for (const std::unique_ptr<_CacheRecord> &pRecord : m_vecAddBack) {
        if (const uint32_t ulResult = m_pCacheTable->InsertRecord(pRecord.get()); ulResult != 0) {
            TARN_LOG_AS(LOG_FAILURE, kFunction, "[%s]InsertRecord failed with error code = %u", ulResult);
            bInserted = false;
            break; // the rest of the batch is dropped; what was inserted is committed
        }
        m_ulAddedCount.fetch_add(1, std::memory_order_relaxed);
    }
    // A full disk makes SQLite end the transaction itself; each hit would then be a transaction of its own.
    if (sqlite3_get_autocommit(m_pDB) != 0 && BeginTransactoion(TRANSACTION_DEFERRED) != 0) {
        return bInserted;
    }
    for (const auto &[liFilePathHash, liHitTime] : m_mapHitBack) {
        m_pCacheTable->AddRecordQueryCount(liFilePathHash, liHitTime);
    }
    return bInserted;
}
