// One scan, from the walk to the last worker.
#ifndef TARN_TOOLS_SCAN_RUN_H
#define TARN_TOOLS_SCAN_RUN_H

#include "tools/engine/scan_engine.h"
#include "tools/scan/queue.h"
#include "tools/scan/worker.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

// What to scan.
struct _ScanTargets {
    std::vector<std::string> vecPaths;
    std::vector<std::string> vecExclude;
    std::string strFileList; // a file or "-" with further paths; empty for none
    bool bNullSeparated = false;
};

class CScanRun {
  public:
    // What is passed in has to outlive the run.
    CScanRun(const _ScanTargets &targets, const _ScanShared &shared, unsigned nThreads)
        : m_targets(targets), m_shared(shared), m_nThreads(nThreads), m_queue(nThreads) {}

    // Scans until everything is done or a stop is asked for, and shows the progress meanwhile. False when the threads
    // cannot be started or run out of memory, with the reason in strError.
    bool Run(const CScanEngine &engine, std::string &strError);

  private:
    bool StartThreads(const CScanEngine &engine, std::vector<std::thread> &vecThreads);
    template <typename Work> void Launch(std::vector<std::thread> &vecThreads, Work work);
    void Walk();
    void Watch();

    const _ScanTargets &m_targets;
    const _ScanShared m_shared;
    const unsigned m_nThreads;
    CJobQueue m_queue;
    std::atomic<int> m_nRunning = 0; // threads
    std::atomic<bool> m_bOutOfMemory = false;
};

#endif
