// Which files carry these MD5s, on the caller's thread. The table lock is held for reading during each MD5's query and
// not during the walk, which may take long.
#include "agent/dbagent.h"

#include "agent/stored_record.h"
#include "util/dbfileutil.h"
#include "util/log.h"

namespace {

constexpr char kLogSource[] = "dbagent";

} // namespace

bool CDataBaseAgent::QueryRequests(RecordMap &requests) {
    for (auto &[strMD5, vecRecords] : requests) {
        const CacheMD5 md5 = MD5Of(strMD5.c_str());
        bool bQueried = false;
        {
            const CBusyDeadline deadline(IsReader());
            const CReadLock lock(m_connection.m_tableLock);
            bQueried = m_pCacheTable->QueryFilePathHashByMD5(md5.liHighMD5, md5.liLowMD5, vecRecords) != 0;
        }
        if (!bQueried) {
            TARN_LOG_AS(ELogLevel::Error, "LookupFilePathsByHashs", "[%s][cache] query file path by md5:%s failed.",
                        strMD5.c_str());
            return false;
        }
    }
    return true;
}

uint32_t CDataBaseAgent::LookupFilePathsByHashs(RecordMap &requests) {
    CdbFileUtil fileUtil;
    fileUtil.m_onFolder = [this](const char *pszFolder) { m_findProgress.Tell(pszFolder); };
    uint32_t ulResult = TARN_E_FAIL;
    if (QueryRequests(requests)) {
        ulResult = fileUtil.FindFilesByCchRecords(requests);
        if (ulResult != TARN_OK) {
            TARN_LOG_ERROR("[%s][cache] FindFilesByFilePathHash failed.");
        }
    }
    if (ulResult != TARN_OK) {
        FreeRecords(requests);
    }
    return ulResult;
}
