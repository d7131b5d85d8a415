// Statistics and direct deletions, on the caller's thread. The count runs under the table lock for reading, deletions
// under it for writing; records still queued are not affected.
#include "agent/dbagent.h"

#include "interface/tarncache.h"
#include "platform/tarncore.h"
#include "util/log.h"

namespace {

constexpr char kLogSource[] = "dbagent";

} // namespace

uint32_t CDataBaseAgent::GetCacheStatistic(_DBStatistics *out) {
    if (out == nullptr) {
        TARN_LOG_ERROR("[%s]arg pDBStatistics is null.");
        return TARN_E_INVALIDARG;
    }
    {
        const CMutexLock lock(m_queueMutex);
        m_queueCondition.Signal(); // what is pending is written soon
    }
    uint32_t ulResult = TARN_OK;
    {
        const CReadLock lock(m_tableLock);
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

uint32_t CDataBaseAgent::DeleteRecordByFileHash(const char *md5_text) {
    if (md5_text == nullptr) {
        TARN_LOG_ERROR("[%s]agr szFileMD5 is null.");
        return TARN_E_FAIL;
    }
    CacheMD5 md5 = {};
    (void)MD5_StrResultConvert(md5_text, &md5); // other text counts as 16 zero bytes, as it does when it is added
    const CWriteLock lock(m_tableLock);
    if (m_pCacheTable->DeleteRecordByMD5(md5.liHighMD5, md5.liLowMD5) == 0) {
        TARN_LOG_ERROR("[%s][cache] delete record by md5 failed.");
        return TARN_E_FAIL;
    }
    return TARN_OK;
}

uint32_t CDataBaseAgent::DeleteAllRecords() {
    const CWriteLock lock(m_tableLock);
    if (m_pCacheTable->DeleteAllRecords() == 0) {
        TARN_LOG_ERROR("[%s][cache] delete all record failed.");
        return TARN_E_FAIL;
    }
    return TARN_OK;
}
