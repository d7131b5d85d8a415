// Start-up and shut-down of the one agent, and the entry points for single files.
#include "interface/tarncache.h"

#include "interface/global_agent.h"
#include "platform/call_guard.h"
#include "util/log.h"

#include <cstddef>

pthread_mutex_t g_DBMutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

constexpr char kLogSource[] = "tarncache";

// Guarded by g_DBMutex for start-up and shut-down; read without it elsewhere.
std::atomic<CDataBaseAgent *> g_pAgent = nullptr;
int64_t g_liInitCount = 0; // successful starts not yet matched; guarded by g_DBMutex

static_assert(sizeof(_SCAN_FILE_RESULT) == 169 && offsetof(_SCAN_FILE_RESULT, lEngineCode) == 8 &&
                  offsetof(_SCAN_FILE_RESULT, ulFlags) == 13 && offsetof(_SCAN_FILE_RESULT, szVirusDesc) == 105,
              "callers lay it out themselves");

class CInitLock {
  public:
    CInitLock() { AbortOnLockError(pthread_mutex_lock(&g_DBMutex)); }
    ~CInitLock() { AbortOnLockError(pthread_mutex_unlock(&g_DBMutex)); }
    CInitLock(const CInitLock &) = delete;
    CInitLock &operator=(const CInitLock &) = delete;
};

bool IsEmpty(const char *pszText) {
    return pszText == nullptr || *pszText == '\0';
}

// mode 0: with the writer thread; 1: without.
uint32_t CacheInit(int mode) {
    return CallWithoutThrowing([mode] {
        const CWriteSignalGuard noWriteSignals;
        const CInitLock lock;
        if (g_liInitCount == 0 && g_pAgent == nullptr) {
            std::unique_ptr<CDataBaseAgent> pAgent(new (std::nothrow) CDataBaseAgent());
            if (pAgent == nullptr) {
                return TARN_E_OUTOFMEMORY;
            }
            if (const uint32_t ulResult = pAgent->AgentInit(mode); ulResult != TARN_OK) {
                return ulResult;
            }
            g_pAgent = pAgent.release();
        }
        ++g_liInitCount;
        return TARN_OK;
    });
}

void LogStatistics(const _DBStatistics &statistics) {
    constexpr char kFunction[] = "LocalCacheUnInit";
    TARN_LOG_AS(LOG_NOTE, kFunction, "[%s]current cache size: %u.", statistics.ulCacheSize);
    TARN_LOG_AS(LOG_NOTE, kFunction, "[%s]hit cache times: %u", statistics.ulHitCount);
    TARN_LOG_AS(LOG_NOTE, kFunction, "[%s]Weed out cache counts: %u", statistics.ulWeedOutCount);
    TARN_LOG_AS(LOG_NOTE, kFunction, "[%s]Weed out times: %u", statistics.ulWeedOutRuns);
}

} // namespace

CDataBaseAgent *GlobalAgent() {
    return g_pAgent;
}

uint32_t LocalCacheInit(void) {
    return CacheInit(0);
}

uint32_t LocalCacheInitEx(void) {
    return CacheInit(1);
}

uint32_t LocalCacheUnInit(void) {
    return CallWithoutThrowing([] {
        const CWriteSignalGuard noWriteSignals;
        const CInitLock lock;
        if (g_liInitCount == 0) {
            return TARN_E_NOT_MATCHED;
        }
        if (--g_liInitCount == 0) {
            _DBStatistics statistics = {};
            if (const std::unique_ptr<CDataBaseAgent> pAgent{g_pAgent.load()}) {
                // Counters that cannot be read are logged as they were; nothing may keep the agent from shutting down.
                (void)CallWithoutThrowing([&] { return pAgent->GetCacheStatistic(&statistics); });
                (void)pAgent->AgentUnInit();
                g_pAgent = nullptr;
            }
            LogStatistics(statistics);
        }
        return TARN_OK;
    });
}

uint32_t LocalCacheLookup(const char *path, char *md5, _SCAN_FILE_RESULT *result) {
    if (IsEmpty(path) || md5 == nullptr || result == nullptr) {
        return TARN_E_INVALIDARG;
    }
    if (GlobalAgent() == nullptr) {
        return TARN_E_NOT_INITIALIZED;
    }
    return CallWithoutThrowing([=] { return GlobalAgent()->CacheLookup(path, md5, result); });
}

uint32_t LocalCachePeek(const char *path, char *md5, _SCAN_FILE_RESULT *result, uint32_t *state) {
    if (IsEmpty(path) || md5 == nullptr || result == nullptr || state == nullptr) {
        return TARN_E_INVALIDARG;
    }
    if (GlobalAgent() == nullptr) {
        return TARN_E_NOT_INITIALIZED;
    }
    return CallWithoutThrowing([=] {
        bool bCurrent = false;
        const uint32_t ulResult = GlobalAgent()->CachePeek(path, md5, result, &bCurrent);
        if (ulResult == TARN_OK) {
            *state = bCurrent ? TARN_PEEK_KNOWN : TARN_PEEK_CHANGED;
        } else if (ulResult == TARN_NOT_CACHED) {
            *state = TARN_PEEK_UNKNOWN;
        }
        return ulResult == TARN_NOT_CACHED ? TARN_OK : ulResult;
    });
}

uint32_t LocalCacheAdd(const char *path, const char *md5, _SCAN_FILE_RESULT *result) {
    if (IsEmpty(path) || md5 == nullptr || result == nullptr) {
        return TARN_E_INVALIDARG;
    }
    if (GlobalAgent() == nullptr) {
        return TARN_E_NOT_INITIALIZED;
    }
    return CallWithoutThrowing([=] {
        const CWriteSignalGuard noWriteSignals; // a new virus description is written at once
        return GlobalAgent()->CacheAdd(path, md5, result);
    });
}

uint32_t LocalCacheDeleteByFileHash(const char *md5) {
    if (md5 == nullptr) {
        return TARN_E_INVALIDARG;
    }
    if (GlobalAgent() == nullptr) {
        return TARN_E_NOT_INITIALIZED;
    }
    return CallWithoutThrowing([=] {
        const CWriteSignalGuard noWriteSignals;
        return GlobalAgent()->DeleteRecordByFileHash(md5);
    });
}

uint32_t LocalCacheGetStatistic(_LOCAL_CACHE_STATISTIC *statistic) {
    if (statistic == nullptr) {
        return TARN_E_INVALIDARG;
    }
    if (GlobalAgent() == nullptr) {
        return TARN_E_NOT_INITIALIZED;
    }
    return CallWithoutThrowing([=] {
        _DBStatistics counters = {};
        const uint32_t ulResult = GlobalAgent()->GetCacheStatistic(&counters);
        if (ulResult == TARN_OK) {
            *statistic = {counters.ulAddedCount, counters.ulCacheSize};
        }
        return ulResult;
    });
}
