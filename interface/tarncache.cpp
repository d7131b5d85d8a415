// Start-up and shut-down of the one agent, and waiting for its writer.
#include "interface/entry.h"

#include "support/fork_mark.h"
#include "util/log.h"

#include <cstddef>

pthread_mutex_t g_DBMutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

constexpr char kLogSource[] = "tarncache";

// Changed under g_DBMutex; read without it elsewhere.
std::atomic<CDataBaseAgent *> g_pAgent = nullptr;
std::atomic<int64_t> g_liInitCount = 0; // successful starts not yet matched
std::atomic<int64_t> g_liInside = 0;    // starts and ends under way; changed without the mutex

static_assert(sizeof(_SCAN_FILE_RESULT) == 169 && offsetof(_SCAN_FILE_RESULT, lEngineCode) == 8 &&
                  offsetof(_SCAN_FILE_RESULT, ulFlags) == 13 && offsetof(_SCAN_FILE_RESULT, szVirusDesc) == 105,
              "callers lay it out themselves");

// True in a child that was forked while the cache was in use. Threads that it does not have may hold g_DBMutex, the
// agent's locks and SQLite's, and SQLite believes that it holds file locks that stayed with the parent. So the child
// takes no lock and touches nothing. One that was forked before the first start or after the last end is like any other
// process.
bool IsForkedInUse() {
    // The counts first: whoever raised them in this process has set the mark before.
    const bool bInUse = g_liInside != 0 || g_liInitCount != 0;
    return bInUse && !CForkMark::IsSet();
}

class CInitLock {
  public:
    CInitLock() {
        CForkMark::Set();
        ++g_liInside;
        AbortOnLockError(pthread_mutex_lock(&g_DBMutex));
    }
    ~CInitLock() {
        AbortOnLockError(pthread_mutex_unlock(&g_DBMutex));
        --g_liInside;
    }
    CInitLock(const CInitLock &) = delete;
    CInitLock &operator=(const CInitLock &) = delete;
};

uint32_t CacheInit(EMode eMode) {
    if (IsForkedInUse()) {
        if (CForkMark::IsOrdinaryChild()) {
            TARN_LOG_SEVERE("[%s][cache] this process was forked while the cache was in use, and can use it only after "
                            "it has executed another program.");
        }
        return TARN_E_FAIL;
    }
    return CallWithoutThrowing([eMode] {
        const CWriteSignalGuard noWriteSignals;
        const CInitLock lock;
        if (g_liInitCount == 0 && g_pAgent == nullptr) {
            std::unique_ptr<CDataBaseAgent> pAgent(new (std::nothrow) CDataBaseAgent());
            if (pAgent == nullptr) {
                return TARN_E_OUTOFMEMORY;
            }
            if (const uint32_t ulResult =
                    eMode == EMode::Reader ? pAgent->AgentInitReader() : pAgent->AgentInit(static_cast<int>(eMode));
                ulResult != TARN_OK) {
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
    TARN_LOG_AS(ELogLevel::Info, kFunction, "[%s]current cache size: %u.", statistics.ulCacheSize);
    TARN_LOG_AS(ELogLevel::Info, kFunction, "[%s]hit cache times: %u", statistics.ulHitCount);
    TARN_LOG_AS(ELogLevel::Info, kFunction, "[%s]Weed out cache counts: %u", statistics.ulWeedOutCount);
    TARN_LOG_AS(ELogLevel::Info, kFunction, "[%s]Weed out times: %u", statistics.ulWeedOutRuns);
}

} // namespace

CDataBaseAgent *GlobalAgent() {
    // The agent first, as in IsForkedInUse.
    CDataBaseAgent *const pAgent = g_pAgent;
    return CForkMark::IsSet() ? pAgent : nullptr;
}

uint32_t LocalCacheInit(void) {
    return CacheInit(EMode::Full);
}

uint32_t LocalCacheInitEx(void) {
    return CacheInit(EMode::Direct);
}

uint32_t LocalCacheInitReader(void) {
    return CacheInit(EMode::Reader);
}

uint32_t LocalCacheUnInit(void) {
    if (IsForkedInUse()) {
        return TARN_E_NOT_MATCHED;
    }
    return CallWithoutThrowing([] {
        const CWriteSignalGuard noWriteSignals;
        const CInitLock lock;
        if (g_liInitCount == 0) {
            return TARN_E_NOT_MATCHED;
        }
        if (--g_liInitCount == 0) {
            _DBStatistics statistics = {};
            if (const std::unique_ptr<CDataBaseAgent> pAgent(g_pAgent.load()); pAgent != nullptr) {
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

uint32_t LocalCacheWaitReady(uint32_t timeoutMs) {
    return Ask(true, [=](CDataBaseAgent &agent) { return agent.WaitReady(timeoutMs); });
}

uint32_t LocalCacheFlush(uint32_t timeoutMs, uint64_t *lost) {
    if (lost != nullptr) {
        *lost = 0;
    }
    return Ask(true,
               [=](CDataBaseAgent &agent) { return agent.IsReader() ? TARN_E_FAIL : agent.Flush(timeoutMs, lost); });
}
