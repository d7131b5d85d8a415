// counters.h - what the agent counts.
#ifndef TARN_AGENT_COUNTERS_H
#define TARN_AGENT_COUNTERS_H

#include <atomic>
#include <cstdint>

// The agent's counters, in the order in which they are reported.
struct _DBStatistics {
    uint32_t ulHitCount;
    uint32_t ulAddedCount;
    uint32_t ulCacheSize;
    uint32_t ulWeedOutCount;
    uint32_t ulWeedOutRuns;
};
static_assert(sizeof(_DBStatistics) == 20);

// Read and raised by any thread.
struct _Counters {
    std::atomic<uint32_t> ulHits = 0;
    std::atomic<uint32_t> ulMisses = 0;
    std::atomic<uint32_t> ulAdded = 0;
    std::atomic<uint32_t> ulCacheSize = 0;    // when it was last asked for
    std::atomic<uint32_t> ulWeedOutCount = 0; // records removed by cleaning
    std::atomic<uint32_t> ulWeedOutRuns = 0;  // expiry passes
    // The running state of the expiry policy, as others than the writer thread may read it.
    std::atomic<int64_t> liNextExpiry = 0;
    std::atomic<uint32_t> ulStartsSinceExpiry = 0;
};

#endif
