#include "tools/cache/added_records.h"

#include "tools/cache/verdict_record.h"

#include <tarncache.h>

#include <algorithm>
#include <ctime>

namespace {

constexpr uint64_t kMostPerProbe = 64;
constexpr std::chrono::milliseconds kLongestProbe(250); // shorter than the writer's pause between two batches
constexpr std::chrono::seconds kPatience(5);            // without a record written
constexpr timespec kPollStep = {0, 20000000};           // 20 milliseconds
constexpr uint32_t kTrimmedSize = 700000; // records that a cache which trims itself keeps; what is gone proves nothing

} // namespace

void CAddedRecords::Note(const std::string &strPath) {
    const Clock::time_point now = Clock::now();
    const std::lock_guard lock(m_mutex);
    ++m_nAdded;
    if (m_vecProbes.empty() || m_vecProbes.back().nRecords == kMostPerProbe ||
        now - m_vecProbes.back().begin >= kLongestProbe) {
        m_vecProbes.push_back({{}, 0, now});
    }
    m_vecProbes.back().strPath = strPath;
    ++m_vecProbes.back().nRecords;
}

// Asking for the counters wakes the writer. A slow answer means that it is at work, and its work is worth waiting for.
uint64_t CAddedRecords::CountLost(uint32_t ulTag) const {
    _LOCAL_CACHE_STATISTIC statistic = {};
    Clock::time_point lastMove = Clock::now();
    while (statistic.ulAddedCount < m_nAdded && Clock::now() - lastMove < kPatience) {
        const uint32_t ulBefore = statistic.ulAddedCount;
        const Clock::time_point asked = Clock::now();
        const bool bAnswered = LocalCacheGetStatistic(&statistic) == TARN_OK;
        if (statistic.ulAddedCount != ulBefore || (bAnswered && Clock::now() - asked > std::chrono::seconds(1))) {
            lastMove = Clock::now();
        } else {
            (void)nanosleep(&kPollStep, nullptr);
        }
    }
    const uint64_t nNotWritten = m_nAdded - std::min<uint64_t>(m_nAdded, statistic.ulAddedCount);
    return statistic.ulCacheSize < kTrimmedSize ? std::max(nNotWritten, CountMissing(ulTag)) : nNotWritten;
}

// A record that is there for another version of the file may be a namesake's that shares its hash, so it counts.
uint64_t CAddedRecords::CountMissing(uint32_t ulTag) const {
    uint64_t nMissing = 0;
    for (const _Probe &probe : m_vecProbes) {
        char szMD5[TARN_MD5_TEXT_SIZE] = {};
        _SCAN_FILE_RESULT record = {};
        _FileVerdict verdict;
        uint32_t ulState = TARN_PEEK_UNKNOWN;
        if (LocalCachePeek(probe.strPath.c_str(), szMD5, &record, &ulState) != TARN_OK) {
            break; // the database is out of reach, and each further question would wait for it
        }
        if (ulState == TARN_PEEK_UNKNOWN || !FromRecord(record, szMD5, ulTag, verdict)) {
            nMissing += probe.nRecords;
        }
    }
    return nMissing;
}
