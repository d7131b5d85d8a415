// The entry points around the scan of one file.
#include "interface/entry.h"

namespace {

bool IsBracket(const _LOCAL_CACHE_SCAN *pScan) {
    return pScan != nullptr && pScan->size >= sizeof(_LOCAL_CACHE_SCAN);
}

} // namespace

uint32_t LocalCacheScanBegin(int fd, _LOCAL_CACHE_SCAN *scan) {
    return Ask(IsBracket(scan), [=](CDataBaseAgent &agent) {
        return agent.ScanBracket().Begin(fd, *scan) ? TARN_OK : TARN_E_INVALIDARG;
    });
}

uint32_t LocalCacheScanFinish(_LOCAL_CACHE_SCAN *scan, const char *path, const char *md5,
                              const _SCAN_FILE_RESULT *verdict, uint32_t *reason) {
    const bool bArguments =
        IsBracket(scan) && !IsEmpty(path) && md5 != nullptr && verdict != nullptr && reason != nullptr;
    return Ask(bArguments, [=](CDataBaseAgent &agent) {
        if (!CScanBracket::IsOpen(*scan)) {
            return TARN_E_INVALIDARG;
        }
        uint32_t ulReason = agent.ScanBracket().Finish(*scan);
        scan->ullMark = 0;
        if (agent.IsReader() && ulReason != TARN_REMEMBER_CHANGED) {
            ulReason = TARN_REMEMBER_REFUSED;
        }
        if (ulReason == TARN_REMEMBER_YES) {
            const uint32_t ulAdded = LocalCacheAddStat(path, &scan->status, md5, verdict);
            ulReason = ulAdded == TARN_OK ? TARN_REMEMBER_YES : TARN_REMEMBER_REFUSED;
        }
        *reason = ulReason;
        return ulReason == TARN_REMEMBER_YES ? TARN_OK : TARN_NOT_CACHED;
    });
}
