// What a scan has added to the cache, and whether the cache's writer has stored it.
#ifndef TARN_TOOLS_CACHE_ADDED_RECORDS_H
#define TARN_TOOLS_CACHE_ADDED_RECORDS_H

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

// The cache drops what its writer cannot store and tells no caller: the rest of a batch behind a failed insertion,
// which its count of written records shows, or a whole batch whose commit fails, which only asking for the records
// shows. One record out of a few is asked for, so that the second number is an estimate where many are added quickly.
class CAddedRecords {
  public:
    // One record that LocalCacheAdd took. From any thread.
    void Note(const std::string &strPath);

    // Waits until the writer has dealt with everything and returns how many records it did not store. Returns at once
    // when nothing was added. ulTag: of the signatures that the records were made with.
    uint64_t CountLost(uint32_t ulTag) const;

  private:
    using Clock = std::chrono::steady_clock;

    // The last of a few records that were added one after the other.
    struct _Probe {
        std::string strPath;
        uint64_t nRecords = 0;
        Clock::time_point begin;
    };

    uint64_t CountMissing(uint32_t ulTag) const;

    mutable std::mutex m_mutex; // guards everything below; CountLost comes after the last Note
    uint64_t m_nAdded = 0;
    std::vector<_Probe> m_vecProbes;
};

#endif
