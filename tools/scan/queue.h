// The bounded queue between the walk and the worker threads.
#ifndef TARN_TOOLS_SCAN_QUEUE_H
#define TARN_TOOLS_SCAN_QUEUE_H

#include "tools/scan/job.h"

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <vector>

class CJobQueue {
  public:
    explicit CJobQueue(size_t nWorkers) : m_nWorkers(nWorkers) {}

    // Waits for room and takes the jobs; the vector is empty afterwards. False once the queue was aborted; the jobs
    // are then dropped.
    bool Push(std::vector<_ScanJob> &vecJobs);

    // Takes a few jobs at once, fewer when the queue runs low so that the last ones spread over all workers. Empty
    // when the queue is closed and drained, or aborted.
    std::vector<_ScanJob> Pop();

    void Close(); // no more jobs will come
    void Abort(); // drops what waits, and wakes everybody

  private:
    // Bounds the folders that waiting jobs hold open, too. The walk sleeps until half of the room is free, so that it
    // and the workers do not wake each other for every few files.
    static constexpr size_t kCapacity = 512;
    static constexpr size_t kLowWater = kCapacity / 2;
    static constexpr size_t kMostAtOnce = 16;

    const size_t m_nWorkers;
    std::mutex m_mutex; // guards everything below
    std::condition_variable m_room;
    std::condition_variable m_work;
    std::deque<_ScanJob> m_jobs;
    bool m_bClosed = false;
    bool m_bAborted = false;
};

#endif
