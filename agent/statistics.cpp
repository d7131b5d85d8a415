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
        const CReadLock lock(m_connection.m_tableLock);
        int iCount = 0;
        if (m_pCacheTable->QueryRecordsCount(&iCount) == 0) {
            m_ulCacheSize = static_cast<uint32_t>(iCount);
        } else {
            TARN_LOG_ERROR("[%s][cache] QueryRecordsCount failed!");
            ulResult = TARN_E_FAIL;
        }
    }
    *out = {m_ulHitCount, m_ulAddedCount, m_ulCacheSize, m_ulWeedOutCount, m_ulWeedOutRuns};
    return ulResult;
}

uint32_t CDataBaseAgent::GetInfo(_LOCAL_CACHE_INFO &info) {
    {
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
    info.ullHits = m_ulHitCount;
    info.ullMisses = m_ulMissCount;
    info.ullAdded = m_ulAddedCount;
    info.ullQueued = m_queue.Waiting();
    info.ullLost = m_queue.Lost();
    info.liNextExpiry = m_liNextExpiry;
    info.ulStartsSinceExpiry = m_ulStartsSinceExpiry;
    info.ulExpireInterval = m_config.lExpireInterval;
    info.ulExpirePercent = m_config.lExpirePercent;
    info.ulIdentity = m_pIdentity != nullptr ? 1 : 0;
    return TARN_OK;
}

uint32_t CDataBaseAgent::CountByFileHash(const char *md5_text, uint64_t &ullCount) {
    const CacheMD5 md5 = MD5Of(md5_text);
    int64_t liCount = 0;
    const CReadLock lock(m_connection.m_tableLock);
    if (m_pCacheTable->CountRecordsByMD5(md5.liHighMD5, md5.liLowMD5, &liCount) != 0) {
        TARN_LOG_ERROR("[%s][cache] counting by md5:%s failed.", md5_text);
        return TARN_E_FAIL;
    }
    ullCount = static_cast<uint64_t>(liCount);
    return TARN_OK;
}

void CDataBaseAgent::PublishExpiry() {
    m_liNextExpiry = m_config.liExpireTime;
    m_ulStartsSinceExpiry = m_config.lDBQueryCounts;
}
