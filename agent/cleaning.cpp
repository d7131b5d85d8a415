// Cleaning, on the writer thread: the expiry pass at its start, trimming and compaction from its timer. Deletions run
// under the table lock held for writing.
#include "agent/dbagent.h"

#include "util/log.h"

#include <cstring>
#include <ctime>
#include <exception>
#include <sqlite3.h>

namespace {

constexpr char kLogSource[] = "dbagent";
constexpr uint32_t kSecondsPerDay = 86400;
constexpr int64_t kRecencyMarginSeconds = 3600; // what was used in the last hour survives

// The message has always asked for wide text ("%S", not ISO C), so it gets wide text.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
#if defined(__clang__)
#pragma GCC diagnostic ignored "-Wformat-non-iso"
#endif
void LogFailedReset(const char *pszError) {
    TARN_LOG_AS(ELogLevel::Error, "DoCleanCachesJob", "[%s][cache] Reset records QC failed with error code msg = %S",
                std::wstring(pszError, pszError + std::strlen(pszError)).c_str());
}
#pragma GCC diagnostic pop

} // namespace

void CDataBaseAgent::DoCleanCachesJob() {
    const int64_t liNow = time(nullptr);
    TARN_LOG_DEBUG("[%s][cache] current time:%lld, config expire time:%lld, config querytimes:%u.",
                   static_cast<long long>(liNow), static_cast<long long>(m_config.liExpireTime),
                   m_config.lDBQueryCounts);
    if (liNow < m_config.liExpireTime) {
        return;
    }
    // 32-bit arithmetic that wraps; percent 100 means every start since the last pass.
    const int iQueryTimes = static_cast<int>(m_config.lExpirePercent * m_config.lDBQueryCounts / 100);
    const int64_t liCutOff = m_config.lExpirePercent == 100 ? liNow : liNow - kRecencyMarginSeconds;
    TARN_LOG_DEBUG("[%s][cache] iQueryTimes:%d.", iQueryTimes);
    const CBusyDeadline deadline(m_config.bProtect);
    const CWriteLock lock(m_connection.m_tableLock);
    int iDeleted = static_cast<int>(m_counters.ulWeedOutCount);
    if (const uint32_t ulResult = m_pCacheTable->DeleteExpireRecords(iQueryTimes, liCutOff, &iDeleted); ulResult != 0) {
        TARN_LOG_ERROR("[%s][cache] Expire records failed with error code msg = %s",
                       sqlite3_errstr(static_cast<int>(ulResult)));
        return; // the date stays, so the next start tries again
    }
    m_counters.ulWeedOutCount = static_cast<uint32_t>(iDeleted); // replaces the count, where trimming adds to it
    if (const uint32_t ulResult = m_pCacheTable->ResetAllRecordsQueryCount(0); ulResult != 0) {
        LogFailedReset(sqlite3_errstr(static_cast<int>(ulResult)));
        return;
    }
    TARN_LOG_DEBUG("[%s][cache] expire time is come.");
    const uint32_t ulInterval = m_config.lExpireInterval * kSecondsPerDay; // wraps too
    m_config.liExpireTime = time(nullptr) + int64_t{ulInterval};
    m_config.lDBQueryCounts = 0;
    PublishExpiry();
    ++m_counters.ulWeedOutRuns;
    (void)WriteDBConfig(&m_config); // when it fails the next start repeats the pass
}

void CDataBaseAgent::CleanTimerCallback(cl_timerplus *pTimer) {
    if (pTimer == nullptr) {
        TARN_LOG_ERROR("[%s]pTimer is null, param invalid");
        return;
    }
    TARN_LOG_INFO("[%s]time over, start clean");
    auto *pAgent = static_cast<CDataBaseAgent *>(pTimer->userData);
    if (pAgent == nullptr) {
        TARN_LOG_ERROR("[%s]No userdata inputed, invalid");
        return;
    }
    try {
        pAgent->TimerCleanCaches();
        (void)pAgent->AdjustDBToActualSize(); // logged there
    } catch (const std::exception &error) {
        TARN_LOG_ERROR("[%s][cache] cleaning ended early: %s", error.what());
    }
}

int64_t CDataBaseAgent::AdjustDBToActualSize() {
    m_health.ExpectShorter();
    return m_connection.AdjustDBToActualSize(m_config.lCacheSize);
}

void CDataBaseAgent::TimerCleanCaches() {
    TARN_LOG_DEBUG("[%s][cache] Check max storage count to clean cache");
    (void)TrimRecords(); // logged there; the timer comes again
}

uint32_t CDataBaseAgent::TrimRecords() {
    int iDeleted = 0;
    const CBusyDeadline deadline(m_config.bProtect);
    const CWriteLock lock(m_connection.m_tableLock);
    const uint32_t ulResult = m_pCacheTable->DeleteExcessRecords(static_cast<int>(m_config.lExpirePercent), &iDeleted);
    if (ulResult != 0) {
        TARN_LOG_AS(ELogLevel::Error, "TimerCleanCaches", "[%s][cache] delete excess records failed with error");
    }
    m_counters.ulWeedOutCount += static_cast<uint32_t>(iDeleted);
    return ulResult == 0 ? TARN_OK : TARN_E_FAIL;
}

int64_t CDataBaseAgent::CheckDBIntegrity() {
    const CBusyDeadline deadline(m_config.bProtect);
    return m_connection.CheckDBIntegrity();
}
