// How many files a scan will meet, counted ahead of it for the progress line.
#ifndef TARN_TOOLS_SCAN_ESTIMATE_H
#define TARN_TOOLS_SCAN_ESTIMATE_H

#include "tools/scan/counters.h"
#include "tools/scan/own_files.h"
#include "tools/scan/queue.h"
#include "tools/scan/report.h"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

// Walks the same paths on a thread of its own until it is done or destroyed. What is passed in has to outlive it.
class CFileEstimate {
  public:
    // A thread that cannot be started only means that there is no estimate.
    CFileEstimate(const std::vector<std::string> &vecPaths, const std::vector<std::string> &vecExclude,
                  const COwnFiles &ownFiles);
    ~CFileEstimate();
    CFileEstimate(const CFileEstimate &) = delete;
    CFileEstimate &operator=(const CFileEstimate &) = delete;

    // 0 while they are being counted.
    uint64_t Total() const { return m_bDone.load() ? m_counters.nFound.load() : 0; }

  private:
    _ScanCounters m_counters;
    CScanReport m_report; // says nothing: the scan itself reports what cannot be read
    CJobQueue m_queue;
    std::atomic<bool> m_bStop = false;
    std::atomic<bool> m_bDone = false;
    std::thread m_thread;
};

#endif
