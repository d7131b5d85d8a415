// The writer thread: swaps the queues out under the queue mutex, then writes them under the table lock held for
// writing.
#include "agent/database_repair.h"

#include "formats/installation.h"
#include "support/call_guard.h"
#include "util/log.h"

#include <exception>

namespace {

constexpr char kLogSource[] = "dbagent";
constexpr int kSweepRetries = 10;
constexpr size_t kSweepAtOnce = 2000;        // codes looked at under one hold of the lock
constexpr uint64_t kCleanPeriodMs = 1800000; // 30 minutes

// One piece of start-up work; running out of memory in it must not end the writer. False when it did not end by itself.
template <typename Step> bool RunStartStep(Step step) {
    try {
        step();
        return true;
    } catch (const std::exception &error) {
        TARN_LOG_AS(ELogLevel::Error, "UpdateRecords", "[%s][cache] maintenance ended early: %s", error.what());
        return false;
    }
}

} // namespace

void *CDataBaseAgent::UpdateWorkThread(void *agent) {
    if (agent == nullptr) {
        TARN_LOG_ERROR("[%s]arg pData is null.");
        return nullptr;
    }
    const CWriteSignalGuard noWriteSignals; // this thread writes: a file-size limit must not kill the host
    auto *pAgent = static_cast<CDataBaseAgent *>(agent);
    try {
        pAgent->UpdateRecords();
    } catch (const std::exception &error) {
        TARN_LOG_SEVERE("[%s][cache] writer thread ended: %s", error.what());
        pAgent->m_queue.WriterEnded(true);
    }
    // Those who wait are let go also when the thread ended before they were.
    pAgent->m_timerGate.Open(TARN_E_FAIL);
    pAgent->m_startGate.Open(pAgent->m_bListRefused ? TARN_E_FAIL : TARN_OK);
    return nullptr;
}

void CDataBaseAgent::UpdateRecords() {
    const bool bTimerFirst = m_config.bProtect; // the start waits for it
    if (bTimerFirst && !StartCleanTimer()) {
        return;
    }
    TakeUpdates();
    if (!bTimerFirst && !StartCleanTimer()) {
        return;
    }
    (void)RunStartStep([this] { DoCleanCachesJob(); });
    m_startGate.Open(m_bListRefused ? TARN_E_FAIL : TARN_OK);
    (void)RunStartStep([this] { (void)AdjustDBToActualSize(); }); // logged there; the cache works uncompacted too
    ++m_config.lDBQueryCounts;
    PublishExpiry();
    (void)WriteDBConfig(&m_config); // a start that is not counted only makes the next expiry pass stricter
    // A pass that sees the end of running is the last one: it also takes what was queued during the pass before.
    while (RunWritePass(true)) {
        cl_ev_loop_nowait(1);
        cl_event_loop_once(); // the clean timer's callback runs here
        SweepCodes();
        (void)RunStartStep([this] { CRepair(*this).CheckAfterUncleanEnd(); });
        (void)RunStartStep([this] { RetryWithdrawals(); });
        if (cl_ev_cb_count() == 0) {
            m_queue.Pause();
        }
    }
    // The last pass may have found damage that the next start would know nothing of.
    (void)RunStartStep([this] { CRepair(*this).HealIfNeeded(); });
    TARN_LOG_DEBUG("[%s]UpdateRecords work thread exit normally!");
    cl_timerplus_stop(m_pCleanTimer);
    cl_timerplus_close(m_pCleanTimer);
    m_pCleanTimer = nullptr;
    m_queue.WriterEnded();
}

bool CDataBaseAgent::StartCleanTimer() {
    m_pCleanTimer = cl_timerplus_start(0, kCleanPeriodMs, CleanTimerCallback, this, 0, 0);
    if (m_pCleanTimer == nullptr) {
        TARN_LOG_AS(ELogLevel::Severe, "UpdateRecords", "[%s]Start timer failed");
        m_queue.WriterEnded();
    }
    m_timerGate.Open(m_pCleanTimer != nullptr ? TARN_OK : TARN_E_FAIL);
    return m_pCleanTimer != nullptr;
}

// What engine updates have left.
void CDataBaseAgent::TakeUpdates() {
    if (m_pProtection != nullptr) {
        (void)RunStartStep([this] { ApplyWithdrawals(); }); // what fails stays in force
        return;
    }
    (void)RunStartStep([this] { (void)CheckDeleteAllCacheRecords(); }); // no marker is the normal case
    if (!RunStartStep([this] { (void)CheckDeleteFrepCacheRecords(); })) {
        m_bListRefused = IsFileThere(kUpdateCachePath);
    }
}

bool CDataBaseAgent::RunWritePass(bool bWait) {
    const bool bRunning = m_queue.TakeBatch(bWait);
    (void)RunStartStep([this] { CRepair(*this).HealIfNeeded(); }); // one that is cut short is begun again
    if (MayServe()) {
        DoBatchWriteJobs();
    } else {
        m_queue.Settle(0);
    }
    return bRunning;
}

// Codes outlive their records only where a library without codes deleted or replaced these. Once after each start they
// are looked through, a group in each pass, so that nobody waits for it.
void CDataBaseAgent::SweepCodes() {
    if (m_pProtection == nullptr || m_pProtection->m_bSwept) {
        return;
    }
    const CWriteLock lock(m_connection.m_tableLock);
    if (m_pProtection->m_identity.m_table.SweepAfter(m_pCacheTable->m_strTableName, kSweepAtOnce,
                                                     m_pProtection->m_liSweptTo, &m_pProtection->m_bSwept) != 0) {
        // A database that stays busy or fails is left alone until the next start.
        m_pProtection->m_bSwept = ++m_pProtection->m_nFailedSweeps > kSweepRetries;
    }
}
