// The bounded queue between the walk and the worker threads.
#ifndef TARN_TOOLS_SCAN_QUEUE_H
#define TARN_TOOLS_SCAN_QUEUE_H

#include "support/descriptor.h"

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

// An open folder. Files are reached through it, so that nobody can slip a link into their path meanwhile, and so that
// paths longer than the system takes at once can be scanned too.
struct _OpenFolder {
    CDescriptor descriptor;
    std::string strPath;
};

// One file to look at.
struct _ScanJob {
    std::shared_ptr<const _OpenFolder> pFolder; // null for a PATH argument
    std::string strName;                        // inside the folder, or what to open
    std::string strArgumentPath;                // the absolute path of an argument

    int FolderFd() const { return pFolder == nullptr ? AT_FDCWD : pFolder->descriptor.Get(); }
    std::string Path() const {
        if (pFolder == nullptr) {
            return strArgumentPath;
        }
        return (pFolder->strPath == "/" ? "" : pFolder->strPath) + "/" + strName;
    }
};

class CJobQueue {
  public:
    static constexpr size_t kDropJobs = 0; // as the number of workers: for a walk that only counts

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
