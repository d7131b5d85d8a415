// One worker thread: takes files from the queue, asks the cache, scans what it does not know, adds the verdict.
#ifndef TARN_TOOLS_SCAN_WORKER_H
#define TARN_TOOLS_SCAN_WORKER_H

#include "support/descriptor.h"
#include "tools/cache/session.h"
#include "tools/engine/scan_engine.h"
#include "tools/scan/counters.h"
#include "tools/scan/file_bracket.h"
#include "tools/scan/file_digest.h"
#include "tools/scan/own_files.h"
#include "tools/scan/queue.h"
#include "tools/scan/report.h"

#include <atomic>
#include <cstdint>
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
    uint32_t ulAllow; // TARN_ALLOW_..., what may be remembered besides
};

class CScanWorker {
  public:
    CScanWorker(std::unique_ptr<CScanEngine> pEngine, const _ScanShared &shared, CJobQueue &queue)
        : m_pEngine(std::move(pEngine)), m_shared(shared), m_queue(queue) {}

    // Works until the queue is drained or aborted.
    void Run();

  private:
    void LookAt(const _ScanJob &job);
    bool AskCache(const struct stat &status, _FileReport &file) const;
    void ScanFile(const _ScanJob &job, _FileReport &file);
    bool Open(const _ScanJob &job, const std::string &strPath, CDescriptor &descriptor, CFileBracket &bracket,
              std::string &strError) const; // and begins the bracket
    void ReadAndScan(int fd, const struct stat &status, _FileReport &file);
    void Count(const _FileReport &file);

    const std::unique_ptr<CScanEngine> m_pEngine;
    const _ScanShared m_shared;
    CJobQueue &m_queue;
    CFileDigest m_digest;
};

#endif
