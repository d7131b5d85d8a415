#include "bench/lookup_load.h"

#include "bench/bench_install.h"
#include "interface/tarncache.h"

#include <random>

namespace {

constexpr int64_t kHeldOutLimit = 100000000; // nanoseconds

int64_t Now() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(BenchClock::now().time_since_epoch()).count();
}

} // namespace

uint32_t LookUpThroughLibrary(const std::string &strFile) {
    char szMD5[TARN_MD5_TEXT_SIZE] = {};
    _SCAN_FILE_RESULT result = {};
    return LocalCacheLookup(strFile.c_str(), szMD5, &result);
}

CLookupLoad::CLookupLoad(const std::vector<std::string> &vecFiles, int nThreads, LookupFunction lookup)
    : m_vecFiles(vecFiles), m_lookup(std::move(lookup)), m_liPeriodStart(Now()) {
    for (int i = 0; i < nThreads; ++i) {
        m_vecThreads.emplace_back([this, i] { Run(static_cast<size_t>(i)); });
    }
}

void CLookupLoad::Stop() {
    m_bStop = true;
    for (std::thread &thread : m_vecThreads) {
        thread.join();
    }
    m_vecThreads.clear();
}

void CLookupLoad::Run(size_t nThread) {
    std::mt19937_64 random(nThread + 1);
    std::uniform_int_distribution<size_t> pick(0, m_vecFiles.size() - 1);
    while (!m_bStop) {
        const std::string &strFile = m_vecFiles[pick(random)];
        const int64_t liStart = Now();
        const uint32_t ulResult = m_lookup(strFile);
        if (ulResult == TARN_E_NOT_INITIALIZED) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
            continue;
        }
        Require(ulResult == TARN_OK || ulResult == TARN_NOT_CACHED, "a lookup failed");
        Note(ulResult, Now() - liStart);
    }
}

void CLookupLoad::Note(uint32_t ulResult, int64_t liNanoseconds) {
    m_nLookups.fetch_add(1, std::memory_order_relaxed);
    if (ulResult == TARN_OK) {
        m_nHits.fetch_add(1, std::memory_order_relaxed);
    }
    if (liNanoseconds > kHeldOutLimit) {
        m_nOver100Ms.fetch_add(1, std::memory_order_relaxed);
    }
    int64_t liLongest = m_liLongest;
    while (liNanoseconds > liLongest && !m_liLongest.compare_exchange_weak(liLongest, liNanoseconds)) {
    }
}

_LoadFigures CLookupLoad::TakeFigures() {
    const int64_t liNow = Now();
    const double seconds = static_cast<double>(liNow - m_liPeriodStart.exchange(liNow)) / 1e9;
    _LoadFigures figures = {};
    figures.nLookups = m_nLookups.exchange(0);
    figures.nHits = m_nHits.exchange(0);
    figures.longestMs = static_cast<double>(m_liLongest.exchange(0)) / 1e6;
    figures.nOver100Ms = m_nOver100Ms.exchange(0);
    figures.lookupsPerSecond = static_cast<double>(figures.nLookups) / seconds;
    return figures;
}
