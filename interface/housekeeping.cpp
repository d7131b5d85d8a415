// The entry points over the cache as a whole: counters, deletions, enumeration, check, texts.
#include "interface/entry.h"

#include "interface/sized_record.h"

uint32_t LocalCacheGetStatistic(_LOCAL_CACHE_STATISTIC *statistic) {
    return Ask(statistic != nullptr, [=](CDataBaseAgent &agent) {
        _DBStatistics counters = {};
        const uint32_t ulResult = agent.GetCacheStatistic(&counters);
        if (ulResult == TARN_OK) {
            *statistic = {counters.ulAddedCount, counters.ulCacheSize};
        }
        return ulResult;
    });
}

uint32_t LocalCacheGetInfo(_LOCAL_CACHE_INFO *info) {
    return Ask(IsSized(info), [=](CDataBaseAgent &agent) {
        _LOCAL_CACHE_INFO found = {};
        const uint32_t ulResult = agent.GetInfo(found);
        if (ulResult == TARN_OK) {
            CopySized(found, info);
        }
        return ulResult;
    });
}

uint32_t LocalCacheCountByFileHash(const char *md5, uint64_t *count) {
    return Ask(md5 != nullptr && count != nullptr,
               [=](CDataBaseAgent &agent) { return agent.CountByFileHash(md5, *count); });
}

uint32_t LocalCacheEnumerate(int (*onRecord)(const _LOCAL_CACHE_RECORD *record, void *context), void *context) {
    return Ask(onRecord != nullptr, [=](CDataBaseAgent &agent) { return agent.EnumerateRecords(onRecord, context); });
}

uint32_t LocalCacheCheck(void (*onFinding)(const char *text, void *context), void *context) {
    // Not for readers: reading the whole file keeps another process from writing for longer than it waits.
    return Ask(true, [=](CDataBaseAgent &agent) {
        return agent.IsReader() ? TARN_E_FAIL : agent.CheckSoundness(onFinding, context);
    });
}

uint32_t LocalCacheDeleteByFileHash(const char *md5) {
    return Change(md5 != nullptr, [=](CDataBaseAgent &agent) { return agent.DeleteRecordByFileHash(md5); });
}

uint32_t LocalCacheDeleteByEngine(int32_t engine) {
    return Change(true, [=](CDataBaseAgent &agent) { return agent.DeleteByEngine(static_cast<int16_t>(engine)); });
}

uint32_t LocalCacheDeleteByPath(const char *path) {
    return Change(!IsEmpty(path), [=](CDataBaseAgent &agent) { return agent.DeleteByPath(path); });
}

uint32_t LocalCacheClear(void) {
    return Change(true, [](CDataBaseAgent &agent) { return agent.DeleteAllRecords(); });
}

uint32_t LocalCacheTrim(void) {
    return Change(true, [](CDataBaseAgent &agent) { return agent.TrimRecords(); });
}

const char *LocalCacheErrorText(uint32_t code) {
    switch (code) {
    case TARN_OK:
        return "success";
    case TARN_NOT_CACHED:
        return "not in the cache, or changed since it was added";
    case TARN_E_INVALIDARG:
        return "bad argument";
    case TARN_E_OUTOFMEMORY:
        return "out of memory";
    case TARN_E_FAIL:
        return "failed; the log says why";
    case TARN_E_ABORT:
        return "ended early by shut-down";
    case TARN_E_NOT_INITIALIZED:
        return "the cache is not initialised";
    case TARN_E_NOT_MATCHED:
        return "more ends than starts";
    case TARN_E_TIMEOUT:
        return "not done within the time given";
    default:
        return "unknown result code";
    }
}

const char *LocalCacheVersion(void) {
    return TARN_VERSION;
}
