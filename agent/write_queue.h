// write_queue.h - what callers leave for the writer thread, additions and noted hits, and how the two sides wait for
// each other. Callers fill the front containers; the writer swaps them against empty back ones and writes those.
#ifndef TARN_AGENT_WRITE_QUEUE_H
#define TARN_AGENT_WRITE_QUEUE_H

#include "util/cache_record.h"
#include "util/locks.h"

#include <atomic>
#include <map>
#include <memory>
#include <vector>

using HitMap = std::map<long, long>; // file path hash -> seconds since the epoch of the hit

class CWriteQueue {
  public:
    // Guards the front containers, the flags and the running flag. Never held together with the table lock.
    CMutex m_mutex;

    CWriteQueue() = default; // what is still queued at the end is freed without being written
    CWriteQueue(const CWriteQueue &) = delete;
    CWriteQueue &operator=(const CWriteQueue &) = delete;

    // Mutex and conditions. 0 or an errno value; destroying what was not created succeeds.
    [[nodiscard]] int Create();
    [[nodiscard]] int Destroy();

    // --- start-up and shut-down

    void Start() { m_bRunning = true; }
    void SetWriter(bool bHasWriter) { m_bHasWriter = bHasWriter; }
    // Clears the running flag and wakes the writer from whatever it waits for.
    void Stop();

    // --- any thread

    // From a successful start until shut-down begins or the writer ends.
    [[nodiscard]] bool IsRunning() const { return m_bRunning; }
    // False: it is not queued, because the writer has failed, or kMostQueued records wait and are not written. Throws
    // std::bad_alloc.
    [[nodiscard]] bool Add(std::unique_ptr<_CacheRecord> pRecord, bool bWriteNow);
    // True once a minute: every file that is scanned meanwhile is refused in the same way.
    [[nodiscard]] bool IsRefusalNews();
    // The first hit's time stays until it is written. Beyond kMostQueued hits it is forgotten. Throws std::bad_alloc.
    void NoteHit(int64_t liFilePathHash);
    void WakeWriter();
    // Waits until all that is queued now is settled. TARN_OK; TARN_E_TIMEOUT; TARN_E_FAIL: nobody writes.
    [[nodiscard]] uint32_t WaitUntilSettled(uint32_t ulTimeoutMs);
    [[nodiscard]] uint64_t Lost() const { return m_ullLost; } // records dropped since the start
    [[nodiscard]] uint64_t Waiting();                         // records not settled yet
    [[nodiscard]] bool IsAwaited();                           // does somebody wait for the coming pass?

    // --- the writer thread

    // Waits up to a second for work (if asked), then swaps. Whether the cache was running at the swap.
    bool TakeBatch(bool bWait) EXCLUDES(m_mutex);
    // Decides what the coming pass writes.
    void SwapDue() REQUIRES(m_mutex);
    [[nodiscard]] const std::vector<std::unique_ptr<_CacheRecord>> &Records() const { return m_vecAddBack; }
    [[nodiscard]] const HitMap &Hits() const { return m_mapHitBack; }
    // Empties the back containers, of whose records nStored reached the disk.
    void Settle(size_t nStored);
    // Instead: puts what was taken back in front of what came meanwhile, for the next pass. False: that is impossible
    // with the last batch, or for lack of memory.
    [[nodiscard]] bool PutBack();
    // Is this the batch of the last pass?
    [[nodiscard]] bool IsLastBatch() const { return m_bLastBatch; }
    // The pause between two passes. Work that comes in waits for the next pass; a shut-down or a flush ends it.
    void Pause();
    // Nobody writes from here on. bFailed: nor is anything added.
    void WriterEnded(bool bFailed = false);

  private:
    static constexpr size_t kMostQueued = 200000; // records (30 MB), and hits (13 MB)
    static constexpr int32_t kAddQueueFull = 1;   // flag bits
    static constexpr int32_t kHitMapFull = 2;

    void WaitForWork() REQUIRES(m_mutex);

    CCondition m_workCondition;    // wakes the writer from its wait for work
    CCondition m_pauseCondition;   // wakes it from its pause between passes
    CCondition m_settledCondition; // wakes those who wait until something is settled
    std::vector<std::unique_ptr<_CacheRecord>> m_vecAddFront GUARDED_BY(m_mutex);
    HitMap m_mapHitFront GUARDED_BY(m_mutex);
    int32_t m_lFlags GUARDED_BY(m_mutex) = 0;
    size_t m_nFlushing GUARDED_BY(m_mutex) = 0; // callers that wait; the writer does not rest meanwhile
    bool m_bWriterFailed GUARDED_BY(m_mutex) = false;
    uint64_t m_ullQueued GUARDED_BY(m_mutex) = 0;
    uint64_t m_ullSettled GUARDED_BY(m_mutex) = 0;
    uint64_t m_ullHitSwaps GUARDED_BY(m_mutex) = 0;        // how often the hit maps were swapped
    uint64_t m_ullHitSwapsSettled GUARDED_BY(m_mutex) = 0; // and how many of these maps are written or lost
    std::atomic<bool> m_bRunning = false;                  // changed under the mutex; maintenance reads it without
    std::atomic<bool> m_bHasWriter = false;
    std::atomic<uint64_t> m_ullLost = 0;
    std::atomic<int64_t> m_liNextRefusalNews = INT64_MIN; // seconds on the monotonic clock

    // The writer thread's alone.
    std::vector<std::unique_ptr<_CacheRecord>> m_vecAddBack;
    HitMap m_mapHitBack;
    bool m_bLastBatch = false;
    bool m_bPutBack = false; // the last batch taken
};

#endif
