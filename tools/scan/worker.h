// One worker thread: takes files from the queue, asks the cache, scans what it does not know, adds the verdict.
#ifndef TARN_TOOLS_SCAN_WORKER_H
#define TARN_TOOLS_SCAN_WORKER_H

#include "support/descriptor.h"
#include "tools/cache/session.h"
#include "tools/engine/scan_engine.h"
#include "tools/scan/counters.h"
#include "tools/scan/file_digest.h"
#include "tools/scan/own_files.h"
#include "tools/scan/queue.h"
#include "tools/scan/report.h"

#include <atomic>
#include <memory>
#include <sys/stat.h>

// What all threads of a scan share.
struct _ScanShared {
    CCacheSession &cache;
    const COwnFiles &ownFiles;
    const std::atomic<bool> &bStop;
    CScanReport &report;
    _ScanCounters &counters;
    bool bWantDigest; // compute the MD5 of scanned files
};

class CScanWorker {
  public:
    CScanWorker(std::unique_ptr<CScanEngine> pEngine, const _ScanShared &shared, CJobQueue &queue)
        : m_pEngine(std::move(pEngine)), m_shared(shared), m_queue(queue) {}

    // Works until the queue is drained or aborted.
    void Run();

  private:
    // The file's status before anything else was done with it.
    struct _StatusBefore {
        struct stat status = {};
        bool bTooNew = false;
    };

    void LookAt(const _ScanJob &job);
    bool AskCache(const struct stat &status, _FileReport &file) const;
    void ScanFile(const _ScanJob &job, const _StatusBefore &before, _FileReport &file);
    bool Open(const _ScanJob &job, const std::string &strPath, CDescriptor &descriptor, struct stat &opened,
              std::string &strError) const;
    void ReadAndScan(int fd, const struct stat &opened, _FileReport &file);
    ENotCached ReasonNotToAdd(const _ScanJob &job, int fd, const _StatusBefore &before, const _FileReport &file) const;
    void Count(const _FileReport &file);

    const std::unique_ptr<CScanEngine> m_pEngine;
    const _ScanShared m_shared;
    CJobQueue &m_queue;
    CFileDigest m_digest;
};

#endif
