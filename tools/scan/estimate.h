// How many files a scan will meet, counted ahead of it for the progress line.
#ifndef TARN_TOOLS_SCAN_ESTIMATE_H
#define TARN_TOOLS_SCAN_ESTIMATE_H

#include "tools/scan/own_files.h"

#include <atomic>
#include <cstdint>
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
    uint64_t Total() const { return m_bDone.load() ? m_nFound.load() : 0; }

  private:
    void Count(const std::vector<std::string> &vecPaths, const std::vector<std::string> &vecExclude,
               const COwnFiles &ownFiles);

    std::atomic<uint64_t> m_nFound = 0;
    std::atomic<bool> m_bStop = false;
    std::atomic<bool> m_bDone = false;
    std::thread m_thread;
};

#endif
