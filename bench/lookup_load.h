// lookup_load.h - threads that look files up without a pause and note how long a lookup was held out.
#ifndef TARN_BENCH_LOOKUP_LOAD_H
#define TARN_BENCH_LOOKUP_LOAD_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

// One lookup of a file; its result code.
using LookupFunction = std::function<uint32_t(const std::string &strFile)>;

// LocalCacheLookup.
uint32_t LookUpThroughLibrary(const std::string &strFile);

struct _LoadFigures {
    uint64_t nLookups;       // answered, hit or miss
    uint64_t nHits;          // of them, hits
    double longestMs;        // the longest that one lookup took
    uint64_t nOver100Ms;     // lookups that took longer than 100 ms
    double lookupsPerSecond; // of all threads together
};

// Threads at work from construction to Stop or destruction. A lookup before the library's start is not counted. The
// file list must outlive it.
class CLookupLoad {
  public:
    CLookupLoad(const std::vector<std::string> &vecFiles, int nThreads, LookupFunction lookup = LookUpThroughLibrary);
    ~CLookupLoad() { Stop(); }
    CLookupLoad(const CLookupLoad &) = delete;
    CLookupLoad &operator=(const CLookupLoad &) = delete;

    // The figures since the last call. A lookup counts where it ends, so one that is held out across two periods
    // belongs to the second.
    _LoadFigures TakeFigures();
    void Stop();

  private:
    void Run(size_t nThread);
    void Note(uint32_t ulResult, int64_t liNanoseconds);

    const std::vector<std::string> &m_vecFiles;
    LookupFunction m_lookup;
    std::atomic<bool> m_bStop = false;
    std::atomic<uint64_t> m_nLookups = 0;
    std::atomic<uint64_t> m_nHits = 0;
    std::atomic<uint64_t> m_nOver100Ms = 0;
    std::atomic<int64_t> m_liLongest = 0; // nanoseconds
    std::atomic<int64_t> m_liPeriodStart;
    std::vector<std::thread> m_vecThreads;
};

#endif
