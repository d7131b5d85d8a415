// The entry points for single files.
#include "interface/entry.h"

#include "interface/sized_record.h"

uint32_t LocalCacheLookup(const char *path, char *md5, _SCAN_FILE_RESULT *result) {
    return Ask(!IsEmpty(path) && md5 != nullptr && result != nullptr,
               [=](CDataBaseAgent &agent) { return agent.CacheLookup(path, md5, result); });
}

uint32_t LocalCacheLookupStat(const char *path, const struct stat *status, char *md5, _SCAN_FILE_RESULT *result) {
    return Ask(!IsEmpty(path) && status != nullptr && md5 != nullptr && result != nullptr,
               [=](CDataBaseAgent &agent) { return agent.CacheLookupStat(path, *status, md5, result); });
}

uint32_t LocalCachePeek(const char *path, char *md5, _SCAN_FILE_RESULT *result, uint32_t *state) {
    return Ask(!IsEmpty(path) && md5 != nullptr && result != nullptr && state != nullptr, [=](CDataBaseAgent &agent) {
        bool bCurrent = false;
        const uint32_t ulResult = agent.CachePeek(path, md5, result, &bCurrent);
        if (ulResult == TARN_OK) {
            *state = bCurrent ? TARN_PEEK_KNOWN : TARN_PEEK_CHANGED;
        } else if (ulResult == TARN_NOT_CACHED) {
            *state = TARN_PEEK_UNKNOWN;
        }
        return ulResult == TARN_NOT_CACHED ? TARN_OK : ulResult;
    });
}

uint32_t LocalCacheExplain(const char *path, _LOCAL_CACHE_EXPLANATION *explanation) {
    return Ask(!IsEmpty(path) && IsSized(explanation), [=](CDataBaseAgent &agent) {
        _LOCAL_CACHE_EXPLANATION found = {};
        const uint32_t ulResult = agent.Explain(path, found);
        if (ulResult == TARN_OK) {
            CopySized(found, explanation);
        }
        return ulResult;
    });
}

// A new virus description is written to the database at once, so an addition changes something.
uint32_t LocalCacheAdd(const char *path, const char *md5, _SCAN_FILE_RESULT *result) {
    return Change(!IsEmpty(path) && md5 != nullptr && result != nullptr,
                  [=](CDataBaseAgent &agent) { return agent.CacheAdd(path, md5, result); });
}

uint32_t LocalCacheAddStat(const char *path, const struct stat *status, const char *md5,
                           const _SCAN_FILE_RESULT *result) {
    return Change(!IsEmpty(path) && status != nullptr && md5 != nullptr && result != nullptr,
                  [=](CDataBaseAgent &agent) { return agent.CacheAddStat(path, *status, md5, result); });
}
