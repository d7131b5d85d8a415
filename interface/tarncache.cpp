// Start-up and shut-down of the one agent, and waiting for its writer.
#include "interface/entry.h"

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

uint32_t CacheInit(EMode eMode) {
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
    return g_pAgent;
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
