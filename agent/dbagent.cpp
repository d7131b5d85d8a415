// Start-up and shut-down, on the caller's thread under g_DBMutex.
#include "agent/dbagent.h"

#include "util/log.h"

#include <cstring>
#include <new>
#include <sys/statfs.h>

namespace {

constexpr char kLogSource[] = "dbagent";
constexpr char kInit[] = "AgentInit";
constexpr uint32_t kTimerWaitMs = 60000; // the first thing that a thread which has been made does

bool IsDiskSpaceEnough(const _DBConfig &config) {
    struct statfs fileSystem = {};
    (void)statfs(config.szDBDir, &fileSystem); // on failure the free space counts as 0
    const uint64_t ullFreeBytes = static_cast<uint64_t>(fileSystem.f_bsize) * fileSystem.f_bfree;
    return config.liDiskThreshold <= ullFreeBytes;
}

} // namespace

CDataBaseAgent::CDataBaseAgent() = default;

CDataBaseAgent::~CDataBaseAgent() = default;

uint32_t CDataBaseAgent::AgentInit(int mode) {
    m_eMode = mode == 0 ? EMode::Full : EMode::Direct;
    const uint32_t ulResult = TakeStart(&CDataBaseAgent::StartDatabase);
    return ulResult == TARN_OK && m_eMode == EMode::Full ? StartWriter() : ulResult;
}

uint32_t CDataBaseAgent::AgentInitReader() {
    m_eMode = EMode::Reader;
    return TakeStart(&CDataBaseAgent::StartReader);
}

uint32_t CDataBaseAgent::TakeStart(uint32_t (CDataBaseAgent::*start)()) {
    uint32_t ulResult = TARN_E_OUTOFMEMORY;
    try {
        ulResult = (this->*start)();
    } catch (const std::bad_alloc &) {
        TARN_LOG_AS(ELogLevel::Severe, kInit, "[%s][cache] out of memory.");
    }
    if (ulResult != TARN_OK) {
        (void)AgentUnInit(); // the failure that counts is the one of the start
        return ulResult;
    }
    PublishExpiry();
    m_queue.Start();
    return TARN_OK;
}

uint32_t CDataBaseAgent::CreateLocks() {
    if (m_connection.m_tableLock.Create() != 0 || m_queue.Create() != 0 || m_startGate.Create() != 0 ||
        m_timerGate.Create() != 0) {
        TARN_LOG_AS(ELogLevel::Severe, kInit, "[%s][cache] init rwlock, mutext, cond failed.");
        return TARN_E_FAIL;
    }
    return TARN_OK;
}

uint32_t CDataBaseAgent::StartDatabase() {
    if (const uint32_t ulResult = CreateLocks(); ulResult != TARN_OK) {
        return ulResult;
    }
    if (const uint32_t ulResult = ReadDBConfig(&m_config); ulResult != TARN_OK) {
        TARN_LOG_AS(ELogLevel::Severe, kInit, "[%s][cache] ReadDBConfig failed.");
        return ulResult;
    }
    TARN_LOG_AS(ELogLevel::Info, kInit, "[%s][cache] read db config success.");
    if (!IsDiskSpaceEnough(m_config)) {
        TARN_LOG_AS(ELogLevel::Error, kInit, "[%s][cache] DiskSpace is lower threshold failed.");
        return TARN_E_FAIL;
    }
    TARN_LOG_AS(ELogLevel::Info, kInit, "[%s][cache] disk have free space for db.");
    const CBusyDeadline deadline(m_config.bProtect);
    if (const uint32_t ulResult = OpenDB(); ulResult != TARN_OK) {
        TARN_LOG_AS(ELogLevel::Severe, kInit, "[%s][cache] open db failed.");
        return ulResult;
    }
    TARN_LOG_AS(ELogLevel::Info, kInit, "[%s][cache] open db success.");
    if (const uint32_t ulResult = DBTablesInit(); ulResult != TARN_OK) {
        TARN_LOG_AS(ELogLevel::Severe, kInit, "[%s][cache] DBTablesInit failed.");
        return ulResult;
    }
    TARN_LOG_AS(ELogLevel::Info, kInit, "[%s][cache] tables init success.");
    return TARN_OK;
}

// Makes nothing, so it needs no free space, and a table that is missing or different is not made anew.
uint32_t CDataBaseAgent::StartReader() {
    const CBusyDeadline deadline(true); // a running cache may be writing
    uint32_t ulResult = CreateLocks();
    ulResult = ulResult != TARN_OK ? ulResult : ReadExistingDBConfig(&m_config);
    if (ulResult == TARN_E_FAIL) {
        TARN_LOG_AS(ELogLevel::Error, kInit, "[%s][cache] the configuration or the database cannot be read.");
    }
    ulResult = ulResult != TARN_OK ? ulResult : OpenExistingDB();
    ulResult = ulResult != TARN_OK ? ulResult : OpenExistingTables();
    return ulResult;
}

uint32_t CDataBaseAgent::StartWriter() {
    m_startGate.Close();
    m_timerGate.Close();
    m_queue.SetWriter(true);
    if (const int iError = cl_ev_create_isolated_thread(&m_writerThread, 0, UpdateWorkThread, this); iError != 0) {
        m_writerThread = 0;
        m_queue.SetWriter(false);
        m_startGate.Open(TARN_OK);
        TARN_LOG_AS(ELogLevel::Error, kInit, "[%s][cache] create thread failed, err:%d.", iError);
    } else if (m_config.bProtect && m_timerGate.Wait(kTimerWaitMs) != TARN_OK) {
        (void)AgentUnInit(); // the writer has said why
        return TARN_E_FAIL;
    }
    return TARN_OK;
}

uint32_t CDataBaseAgent::WaitReady(uint32_t ulTimeoutMs) {
    return m_startGate.Wait(ulTimeoutMs);
}

uint32_t CDataBaseAgent::Flush(uint32_t ulTimeoutMs, uint64_t *pullLost) {
    const uint32_t ulResult = m_queue.WaitUntilSettled(ulTimeoutMs);
    if (pullLost != nullptr) {
        *pullLost = m_queue.Lost();
    }
    return ulResult;
}

uint32_t CDataBaseAgent::AgentUnInit() {
    if (m_queue.IsRunning()) {
        m_queue.Stop();
    }
    if (m_writerThread != 0) {
        if (const int iError = pthread_join(m_writerThread, nullptr); iError != 0) {
            TARN_LOG_ERROR("[%s][cache] wait the thread to join failed, err:%s.", std::strerror(iError));
            m_writerThread = 0;
        }
    }
    if (m_connection.m_tableLock.Destroy() != 0 || m_queue.Destroy() != 0 || m_startGate.Destroy() != 0 ||
        m_timerGate.Destroy() != 0) {
        TARN_LOG_ERROR("[%s][cache] destroy rwlock, cond, mutex failed.");
    }
    DBTablesUnInit();
    m_connection.FinalizeStatements();
    const bool bDamage = m_connection.Failures().HasDamage(); // forgotten with the connection
    const uint32_t ulResult = CloseDB();
    if (ulResult == TARN_OK) {
        m_health.EndRun(bDamage);
    }
    return ulResult;
}
