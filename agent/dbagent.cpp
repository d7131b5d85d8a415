// Start-up and shut-down, on the caller's thread under g_DBMutex; no lock of the agent's own is needed but the queue
// mutex for the running flag.
#include "agent/dbagent.h"

#include "interface/tarncache.h"
#include "util/log.h"

#include <cstring>
#include <new>
#include <sqlite3.h>
#include <sys/statfs.h>

namespace {

constexpr char kLogSource[] = "dbagent";

} // namespace

CDataBaseAgent::CDataBaseAgent() = default;

CDataBaseAgent::~CDataBaseAgent() = default;

uint32_t CDataBaseAgent::AgentInit(int mode) {
    uint32_t ulResult = TARN_E_OUTOFMEMORY;
    try {
        ulResult = StartDatabase();
    } catch (const std::bad_alloc &) {
        TARN_LOG_SEVERE("[%s][cache] out of memory.");
    }
    if (ulResult != TARN_OK) {
        (void)AgentUnInit(); // the failure that counts is the one of the start
        return ulResult;
    }
    m_bRunning = true;
    if (mode != 0) {
        return TARN_OK;
    }
    if (const int iError = cl_ev_create_isolated_thread(&m_writerThread, 0, UpdateWorkThread, this); iError != 0) {
        m_writerThread = 0;
        TARN_LOG_ERROR("[%s][cache] create thread failed, err:%d.", iError);
    }
    return TARN_OK;
}

uint32_t CDataBaseAgent::StartDatabase() {
    constexpr char kFunction[] = "AgentInit";
    if (m_tableLock.Create() != 0 || m_queueMutex.Create() != 0 || m_queueCondition.Create(CLOCK_REALTIME) != 0 ||
        m_stopCondition.Create(CLOCK_MONOTONIC) != 0) {
        TARN_LOG_AS(LOG_SEVERE, kFunction, "[%s][cache] init rwlock, mutext, cond failed.");
        return TARN_E_FAIL;
    }
    if (const uint32_t ulResult = ReadDBConfig(&m_config); ulResult != TARN_OK) {
        TARN_LOG_AS(LOG_SEVERE, kFunction, "[%s][cache] ReadDBConfig failed.");
        return ulResult;
    }
    TARN_LOG_AS(LOG_NOTE, kFunction, "[%s][cache] read db config success.");
    if (!IsDiskSpaceEnough()) {
        TARN_LOG_AS(LOG_FAILURE, kFunction, "[%s][cache] DiskSpace is lower threshold failed.");
        return TARN_E_FAIL;
    }
    TARN_LOG_AS(LOG_NOTE, kFunction, "[%s][cache] disk have free space for db.");
    if (const uint32_t ulResult = OpenDB(); ulResult != TARN_OK) {
        TARN_LOG_AS(LOG_SEVERE, kFunction, "[%s][cache] open db failed.");
        return ulResult;
    }
    TARN_LOG_AS(LOG_NOTE, kFunction, "[%s][cache] open db success.");
    if (const uint32_t ulResult = DBTablesInit(); ulResult != TARN_OK) {
        TARN_LOG_AS(LOG_SEVERE, kFunction, "[%s][cache] DBTablesInit failed.");
        return ulResult;
    }
    TARN_LOG_AS(LOG_NOTE, kFunction, "[%s][cache] tables init success.");
    return TARN_OK;
}

bool CDataBaseAgent::IsDiskSpaceEnough() const {
    struct statfs fileSystem = {};
    (void)statfs(m_config.szDBDir, &fileSystem); // on failure the free space counts as 0
    const uint64_t ullFreeBytes = static_cast<uint64_t>(fileSystem.f_bsize) * fileSystem.f_bfree;
    return m_config.liDiskThreshold <= ullFreeBytes;
}

uint32_t CDataBaseAgent::AgentUnInit() {
    if (m_bRunning) {
        const CMutexLock lock(m_queueMutex);
        m_bRunning = false;
        m_queueCondition.Signal();
        m_stopCondition.Signal();
    }
    if (m_writerThread != 0) {
        if (const int iError = pthread_join(m_writerThread, nullptr); iError != 0) {
            TARN_LOG_ERROR("[%s][cache] wait the thread to join failed, err:%s.", std::strerror(iError));
            m_writerThread = 0;
        }
    }
    if (m_tableLock.Destroy() != 0 || m_queueCondition.Destroy() != 0 || m_stopCondition.Destroy() != 0 ||
        m_queueMutex.Destroy() != 0) {
        TARN_LOG_ERROR("[%s][cache] destroy rwlock, cond, mutex failed.");
    }
    DBTablesUnInit();
    for (_SQLStmt *pStatement : {&m_stBegin, &m_stCommit, &m_stRollback}) {
        pStatement->Finalize();
    }
    return CloseDB();
}
