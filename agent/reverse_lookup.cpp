// Which files carry these MD5s, on the caller's thread. The table lock is held for reading during each MD5's query and
// not during the walk, which may take long.
#include "agent/dbagent.h"

#include "interface/tarncache.h"
#include "platform/tarncore.h"
#include "util/dbfileutil.h"
#include "util/log.h"

namespace {

constexpr char kLogSource[] = "dbagent";

void FreeRecords(HashRequests &requests) {
    for (auto &[strMD5, vecRecords] : requests) {
        for (const _CacheRecordEx *pRecord : vecRecords) {
            delete pRecord;
        }
        vecRecords.clear();
    }
}

} // namespace

bool CDataBaseAgent::QueryRequests(HashRequests &requests) {
    for (auto &[strMD5, vecRecords] : requests) {
        CacheMD5 md5 = {};
        (void)MD5_StrResultConvert(strMD5.c_str(), &md5); // other text counts as 16 zero bytes
        bool bQueried = false;
        {
            const CReadLock lock(m_tableLock);
            bQueried = m_pCacheTable->QueryFilePathHashByMD5(md5.liHighMD5, md5.liLowMD5, vecRecords) != 0;
        }
        if (!bQueried) {
            TARN_LOG_AS(LOG_FAILURE, "LookupFilePathsByHashs", "[%s][cache] query file path by md5:%s failed.",
                        strMD5.c_str());
            return false;
        }
    }
    return true;
}

uint32_t CDataBaseAgent::LookupFilePathsByHashs(HashRequests &requests) {
    CdbFileUtil fileUtil;
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
