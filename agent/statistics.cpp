// Counters, on the caller's thread. Rows are counted under the table lock for reading.
#include "agent/dbagent.h"

#include "agent/stored_record.h"
#include "util/log.h"

namespace {

constexpr char kLogSource[] = "dbagent";

} // namespace

uint32_t CDataBaseAgent::GetCacheStatistic(_DBStatistics *out) {
    if (out == nullptr) {
        TARN_LOG_ERROR("[%s]arg pDBStatistics is null.");
        return TARN_E_INVALIDARG;
    }
    m_queue.WakeWriter(); // what is pending is written soon
    uint32_t ulResult = TARN_OK;
    {
        const CBusyDeadline deadline(IsReader());
        const CReadLock lock(m_connection.m_tableLock);
        int iCount = 0;
        if (m_pCacheTable->QueryRecordsCount(&iCount) == 0) {
            m_counters.ulCacheSize = static_cast<uint32_t>(iCount);
        } else {
            TARN_LOG_ERROR("[%s][cache] QueryRecordsCount failed!");
            ulResult = TARN_E_FAIL;
        }
    }
    *out = {m_counters.ulHits, m_counters.ulAdded, m_counters.ulCacheSize, m_counters.ulWeedOutCount,
            m_counters.ulWeedOutRuns};
    return ulResult;
}

uint32_t CDataBaseAgent::GetInfo(_LOCAL_CACHE_INFO &info) {
    {
        const CBusyDeadline deadline(IsReader());
        const CReadLock lock(m_connection.m_tableLock);
        int iCount = 0;
        if (m_pCacheTable->QueryRecordsCount(&iCount) != 0 ||
            !m_connection.MeasureFile(info.ullFileBytes, info.ullFreeBytes)) {
            TARN_LOG_ERROR("[%s][cache] the database cannot be measured.");
            return TARN_E_FAIL;
        }
        info.ullRecords = static_cast<uint64_t>(iCount);
    }
    info.ulMode = static_cast<uint32_t>(m_eMode);
    info.ullRecordCap = CCacheTable::kMaxRecords;
    info.ullHits = m_counters.ulHits;
    info.ullMisses = m_counters.ulMisses;
    info.ullAdded = m_counters.ulAdded;
    info.ullQueued = m_queue.Waiting();
    info.ullLost = m_queue.Lost();
    info.liNextExpiry = m_counters.liNextExpiry;
    info.ulStartsSinceExpiry = m_counters.ulStartsSinceExpiry;
    info.ulExpireInterval = m_config.lExpireInterval;
    info.ulExpirePercent = m_config.lExpirePercent;
    info.ulIdentity = m_pProtection != nullptr ? 1 : 0;
    return TARN_OK;
}

uint32_t CDataBaseAgent::CountByFileHash(const char *md5_text, uint64_t &ullCount) {
    const CacheMD5 md5 = MD5Of(md5_text);
    int64_t liCount = 0;
    const CBusyDeadline deadline(IsReader());
    const CReadLock lock(m_connection.m_tableLock);
    if (m_pCacheTable->CountRecordsByMD5(md5.liHighMD5, md5.liLowMD5, &liCount) != 0) {
        TARN_LOG_ERROR("[%s][cache] counting by md5:%s failed.", md5_text);
        return TARN_E_FAIL;
    }
    ullCount = static_cast<uint64_t>(liCount);
    return TARN_OK;
}

void CDataBaseAgent::PublishExpiry() {
    m_counters.liNextExpiry = m_config.liExpireTime;
    m_counters.ulStartsSinceExpiry = m_config.lDBQueryCounts;
}
