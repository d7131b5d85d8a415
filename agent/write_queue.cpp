#include "agent/write_queue.h"

#include <algorithm>
#include <ctime>
#include <iterator>
#include <new>
#include <sys/time.h>

namespace {

constexpr size_t kMaxQueuedAdds = 9999; // one more marks the queue as full and wakes the writer
constexpr size_t kMaxNotedHits = 19999; // likewise for the hit map
constexpr uint64_t kPassPauseMs = 500;
constexpr int64_t kSecondsBetweenNews = 60;
constexpr uint64_t kHeldPauseMs = 50; // while somebody waits for what another process keeps from being written

// The moment at which the wall clock shows its next whole second, to the millisecond and unless it is set meanwhile.
timespec NextWholeSecond() {
    timeval now = {};
    (void)gettimeofday(&now, nullptr);
    return DeadlineAfter(1000 - static_cast<uint64_t>(now.tv_usec) / 1000);
}

} // namespace

int CWriteQueue::Create() {
    int iError = m_mutex.Create();
    for (CCondition *pCondition : {&m_workCondition, &m_pauseCondition, &m_settledCondition}) {
        iError = iError != 0 ? iError : pCondition->Create(CLOCK_MONOTONIC);
    }
    return iError;
}

int CWriteQueue::Destroy() {
    int iError = 0;
    for (CCondition *pCondition : {&m_workCondition, &m_pauseCondition, &m_settledCondition}) {
        iError = iError != 0 ? iError : pCondition->Destroy();
    }
    return iError != 0 ? iError : m_mutex.Destroy();
}

void CWriteQueue::Stop() {
    const CMutexLock lock(m_mutex);
    m_bRunning = false;
    m_workCondition.Signal();
    m_pauseCondition.Signal();
}

bool CWriteQueue::Add(std::unique_ptr<_CacheRecord> pRecord, bool bWriteNow) {
    const CMutexLock lock(m_mutex);
    if (m_bWriterFailed || m_ullQueued - m_ullSettled >= kMostQueued) {
        return false;
    }
    m_vecAddFront.push_back(std::move(pRecord));
    ++m_ullQueued;
    if (m_vecAddFront.size() > kMaxQueuedAdds) {
        m_lFlags |= kAddQueueFull;
        m_workCondition.Signal();
    } else if (bWriteNow) {
        m_workCondition.Signal();
    }
    if (m_vecAddFront.size() == kMostQueued / 2) {
        m_pauseCondition.Signal(); // one that fills this fast must not wait
    }
    return true;
}

bool CWriteQueue::IsRefusalNews() {
    const int64_t liNow = DeadlineAfter(0).tv_sec;
    int64_t liNext = m_liNextRefusalNews;
    return liNow >= liNext && m_liNextRefusalNews.compare_exchange_strong(liNext, liNow + kSecondsBetweenNews);
}

void CWriteQueue::NoteHit(int64_t liFilePathHash) {
    const CMutexLock lock(m_mutex);
    if (m_mapHitFront.size() < kMostQueued) { // a hit that is forgotten makes the record look less used
        m_mapHitFront.emplace(liFilePathHash, time(nullptr));
    }
    if (m_mapHitFront.size() > kMaxNotedHits) {
        m_lFlags |= kHitMapFull;
        m_workCondition.Signal();
    }
}

void CWriteQueue::WakeWriter() {
    const CMutexLock lock(m_mutex);
    m_workCondition.Signal();
}

// A flush races with callers who go on adding and with the writer's passes:
// 1. It notes how many records have been queued, and which swap of the hit maps takes the hits that are noted now: the
//    next one when there are any, else the last one.
// 2. Meanwhile the writer neither rests nor waits for work, so that every pass takes what is due.
// 3. A pass settles its records when it ends, written or lost, and with them the swaps up to its own.
// 4. The flush ends when both have come past its marks, whatever was queued behind it.
uint32_t CWriteQueue::WaitUntilSettled(uint32_t ulTimeoutMs) {
    const timespec deadline = DeadlineAfter(ulTimeoutMs);
    const CMutexLock lock(m_mutex);
    const uint64_t ullRecords = m_ullQueued;
    const uint64_t ullHitSwaps = m_ullHitSwaps + (m_mapHitFront.empty() ? 0 : 1);
    ++m_nFlushing;
    bool bInTime = true;
    while (bInTime && m_bHasWriter && (m_ullSettled < ullRecords || m_ullHitSwapsSettled < ullHitSwaps)) {
        m_workCondition.Signal();
        m_pauseCondition.Signal();
        bInTime = m_settledCondition.WaitUntil(m_mutex, deadline);
    }
    --m_nFlushing;
    if (m_ullSettled >= ullRecords && m_ullHitSwapsSettled >= ullHitSwaps) {
        return TARN_OK;
    }
    return bInTime ? TARN_E_FAIL : TARN_E_TIMEOUT;
}

uint64_t CWriteQueue::Waiting() {
    const CMutexLock lock(m_mutex);
    return m_ullQueued - m_ullSettled;
}

bool CWriteQueue::IsAwaited() {
    const CMutexLock lock(m_mutex);
    return !m_bRunning || m_nFlushing > 0 || m_lFlags != 0;
}

void CWriteQueue::WaitForWork() {
    if (m_bRunning && m_nFlushing == 0 && m_lFlags == 0 && (m_vecAddFront.empty() || m_mapHitFront.empty())) {
        (void)m_workCondition.WaitUntil(m_mutex, NextWholeSecond()); // without work a pass does little
    }
}

bool CWriteQueue::TakeBatch(bool bWait) {
    const CMutexLock lock(m_mutex);
    if (bWait) {
        WaitForWork();
    }
    SwapDue();
    m_bPutBack = false;
    m_bLastBatch = !m_bRunning;
    return m_bRunning;
}

void CWriteQueue::SwapDue() {
    if (!m_bRunning || (!m_vecAddFront.empty() && (m_lFlags == 0 || (m_lFlags & kAddQueueFull) != 0))) {
        m_vecAddFront.swap(m_vecAddBack);
        m_lFlags &= ~kAddQueueFull;
    }
    // With the flags as they are now: a full hit map goes first, queued additions wait for a later pass.
    if (!m_bRunning || (!m_mapHitFront.empty() && (m_lFlags == 0 || (m_lFlags & kHitMapFull) != 0))) {
        m_mapHitFront.swap(m_mapHitBack);
        m_lFlags &= ~kHitMapFull;
        ++m_ullHitSwaps;
    }
}

void CWriteQueue::Settle(size_t nStored) {
    m_ullLost += m_vecAddBack.size() - nStored;
    {
        const CMutexLock lock(m_mutex);
        m_ullSettled += m_vecAddBack.size();
        m_ullHitSwapsSettled = m_ullHitSwaps;
        m_settledCondition.SignalAll();
    }
    m_vecAddBack.clear();
    m_mapHitBack.clear();
}

// What is not settled is still waited for by those who wait. The swap of the hit map that brings these hits again has a
// higher number than the one that took them, so a flush that waits for the former waits for the latter.
bool CWriteQueue::PutBack() {
    const CMutexLock lock(m_mutex);
    if (m_bLastBatch) {
        return false;
    }
    try {
        m_vecAddBack.reserve(m_vecAddBack.size() + m_vecAddFront.size());
    } catch (const std::bad_alloc &) {
        return false;
    }
    std::move(m_vecAddFront.begin(), m_vecAddFront.end(), std::back_inserter(m_vecAddBack));
    m_vecAddFront.clear();
    m_vecAddFront.swap(m_vecAddBack);
    if (m_mapHitBack.size() < kMostQueued) {
        m_mapHitBack.merge(m_mapHitFront); // moves nodes, and of one key keeps the earlier hit
    }
    m_mapHitFront.clear();
    m_mapHitFront.swap(m_mapHitBack);
    m_bPutBack = true;
    return true;
}

void CWriteQueue::Pause() {
    const CMutexLock lock(m_mutex);
    const timespec deadline = DeadlineAfter(m_nFlushing == 0 ? kPassPauseMs : kHeldPauseMs);
    if (m_bRunning && (m_nFlushing == 0 || m_bPutBack)) {
        (void)m_pauseCondition.WaitUntil(m_mutex, deadline);
    }
}

void CWriteQueue::WriterEnded(bool bFailed) {
    const CMutexLock lock(m_mutex);
    m_bWriterFailed = m_bWriterFailed || bFailed;
    m_bRunning = false;
    m_bHasWriter = false;
    m_settledCondition.SignalAll();
}
