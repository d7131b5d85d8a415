// Opening and closing, at start-up and shut-down only: on the caller's thread, before the writer starts and after it
// has ended; takes no lock.
#include "agent/connection.h"

#include "platform/nubbase.h"
#include "util/log.h"

#include <cstring>
#include <sqlite3.h>

namespace {

constexpr char kLogSource[] = "dbagent";
constexpr char kOpen[] = "OpenDB"; // the step of the start that all of this belongs to

} // namespace

bool CConnection::Open(const std::string &strPath) {
    const bool bOpened = m_vfs.OpenConnection(strPath, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, &m_pDB) == SQLITE_OK;
    if (bOpened) {
        CBusyDeadline::Attach(m_pDB);
    }
    return bOpened;
}

uint32_t CConnection::OpenForReading(const std::string &strPath) {
    bool bOpened = m_vfs.OpenConnection(strPath, SQLITE_OPEN_READONLY, &m_pDB) == SQLITE_OK;
    if (bOpened) {
        CBusyDeadline::Attach(m_pDB);
        // The file is opened by the first question, so that one is asked here.
        bOpened = sqlite3_exec(m_pDB, "select count(*) from sqlite_master;", nullptr, nullptr, nullptr) == SQLITE_OK;
    }
    if (!bOpened) {
        TARN_LOG_AS(ELogLevel::Error, kOpen, "[%s][cache] %s cannot be read, err:%s.", strPath.c_str(),
                    m_pDB != nullptr ? sqlite3_errmsg(m_pDB) : sqlite3_errstr(SQLITE_NOMEM));
    }
    if (bOpened && HasUsableMode()) {
        return TARN_OK;
    }
    Abandon();
    return TARN_E_FAIL;
}

bool CConnection::HasUsableMode() {
    if (sqlite3_db_mutex(m_pDB) == nullptr) {
        TARN_LOG_AS(ELogLevel::Severe, kOpen,
                    "[%s][cache] the host has switched off SQLite's serialized mode, which lookups rely on.");
        return false;
    }
#ifdef SQLITE_DBCONFIG_DQS_DML
    // Some statement texts quote values with double quotes, which an SQLite may be built to refuse.
    (void)sqlite3_db_config(m_pDB, SQLITE_DBCONFIG_DQS_DML, 1, nullptr);
#endif
    return true;
}

void CConnection::Distrust() {
    m_failures.Follow(m_pDB);
#ifdef SQLITE_DBCONFIG_DEFENSIVE
    (void)sqlite3_db_config(m_pDB, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
#endif
#ifdef SQLITE_DBCONFIG_TRUSTED_SCHEMA
    (void)sqlite3_db_config(m_pDB, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
#endif
}

std::string CConnection::LastFailure() const {
    std::string strText = m_pDB != nullptr ? sqlite3_errmsg(m_pDB) : sqlite3_errstr(SQLITE_NOMEM);
    if (const int iError = m_pDB != nullptr ? sqlite3_system_errno(m_pDB) : 0; iError != 0) {
        strText += std::string(", ") + std::strerror(iError);
    }
    return strText;
}

uint32_t CConnection::Configure(int32_t lCachePages) {
    if (!HasUsableMode()) {
        (void)CloseDB();
        return TARN_E_FAIL;
    }
    char szSQL[kStatementSize] = {};
    str_snprintf(szSQL, sizeof szSQL, "%s=%d;", "pragma cache_size", lCachePages);
    char *pszError = nullptr;
    if (const int iResult = sqlite3_exec(m_pDB, szSQL, nullptr, nullptr, &pszError); iResult != SQLITE_OK) {
        TARN_LOG_AS(ELogLevel::Error, kOpen, "[%s][cache] sqlite3_exec set cache size failed with error msg = %s",
                    pszError != nullptr ? pszError : sqlite3_errstr(iResult));
        sqlite3_free(pszError);
        return TARN_OK; // on purpose: lookups still work; every later commit says that it has no statement
    }
    // What is deleted holds no secrets; overwriting it would double the time that lookups wait for a large deletion.
    (void)sqlite3_exec(m_pDB, "pragma secure_delete=off;", nullptr, nullptr, nullptr);
    const uint32_t ulResult = PrepareEndStatements();
    if (ulResult != TARN_OK) {
        (void)CloseDB();
    }
    return ulResult;
}

uint32_t CConnection::PrepareEndStatements() {
    const int iCommit = m_stCommit.Prepare(m_pDB);
    const int iRollback = m_stRollback.Prepare(m_pDB);
    if (iCommit != SQLITE_OK || iRollback != SQLITE_OK) {
        TARN_LOG_AS(ELogLevel::Error, kOpen, "[%s][cache] sqlite3_prepare_v2 failed with error code = %u",
                    static_cast<unsigned int>(iCommit | iRollback));
        FinalizeStatements();
        return TARN_E_FAIL;
    }
    TARN_LOG_DEBUG_AS(kOpen, "[%s][cache] open db success.");
    return TARN_OK;
}

void CConnection::Abandon() {
    FinalizeStatements(); // SQLite keeps a connection that has some
    m_failures.Follow(nullptr);
    sqlite3_close(m_pDB);
    m_pDB = nullptr;
    m_ownReading.Close();
    m_vfs.Withdraw();
}

void CConnection::FinalizeStatements() {
    for (_SQLStmt *pStatement : {&m_stBegin, &m_stCommit, &m_stRollback}) {
        pStatement->Finalize();
    }
}

uint32_t CConnection::CloseDB() {
    if (m_pDB == nullptr) {
        return TARN_OK;
    }
    int iResult = sqlite3_close(m_pDB);
    if (iResult == SQLITE_BUSY) {
        while (sqlite3_stmt *pStmt = sqlite3_next_stmt(m_pDB, nullptr)) {
            sqlite3_reset(pStmt);
            sqlite3_finalize(pStmt);
        }
        iResult = sqlite3_close(m_pDB);
    }
    if (iResult != SQLITE_OK) {
        return TARN_E_FAIL;
    }
    m_pDB = nullptr;
    m_ownReading.Close(); // drops the locks of this process, and there are none any more
    m_failures.Follow(nullptr);
    m_vfs.Withdraw();
    return TARN_OK;
}

bool CConnection::MeasureFile(uint64_t &ullFileBytes, uint64_t &ullFreeBytes) const {
    int64_t liPageSize = 0;
    int64_t liPages = 0;
    int64_t liFreePages = 0;
    if (QueryNumber(m_pDB, "pragma page_size;", &liPageSize) != SQLITE_OK ||
        QueryNumber(m_pDB, "pragma page_count;", &liPages) != SQLITE_OK ||
        QueryNumber(m_pDB, "pragma freelist_count;", &liFreePages) != SQLITE_OK) {
        return false;
    }
    ullFileBytes = static_cast<uint64_t>(liPages * liPageSize);
    ullFreeBytes = static_cast<uint64_t>(liFreePages * liPageSize);
    return true;
}
