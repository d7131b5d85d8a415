// The database file: open, rebuild, tables, close. Runs at start-up and shut-down only, on the caller's thread, before
// the writer starts and after it has ended; takes no lock.
#include "agent/dbagent.h"

#include "interface/tarncache.h"
#include "platform/nubbase.h"
#include "tables/sqlite_support.h"
#include "util/log.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <sqlite3.h>
#include <unistd.h>

namespace {

constexpr char kLogSource[] = "dbagent";
constexpr char kFallbackName[] = "morcachebak.db";

std::string DatabasePath(const _DBConfig &config) {
    return std::string(config.szDBDir) + config.szDBName;
}

} // namespace

uint32_t CDataBaseAgent::OpenDB() {
    if (sqlite3_open(DatabasePath(m_config).c_str(), &m_pDB) != SQLITE_OK) {
        if (const uint32_t ulResult = RebuildDB(); ulResult != TARN_OK) {
            TARN_LOG_ERROR("[%s]RebuildDB failed.");
            m_stCommit.Finalize();
            m_stRollback.Finalize();
            (void)CloseDB();
            return ulResult;
        }
    }
    if (sqlite3_db_mutex(m_pDB) == nullptr) {
        TARN_LOG_SEVERE("[%s][cache] the host has switched off SQLite's serialized mode, which lookups rely on.");
        (void)CloseDB();
        return TARN_E_FAIL;
    }
#ifdef SQLITE_DBCONFIG_DQS_DML
    // Some statement texts quote values with double quotes, which an SQLite may be built to refuse.
    (void)sqlite3_db_config(m_pDB, SQLITE_DBCONFIG_DQS_DML, 1, nullptr);
#endif
    char szSQL[kStatementSize] = {};
    str_snprintf(szSQL, sizeof szSQL, "%s=%d;", "pragma cache_size", m_config.lCacheSize);
    char *pszError = nullptr;
    if (const int iResult = sqlite3_exec(m_pDB, szSQL, nullptr, nullptr, &pszError); iResult != SQLITE_OK) {
        TARN_LOG_ERROR("[%s][cache] sqlite3_exec set cache size failed with error msg = %s",
                       pszError != nullptr ? pszError : sqlite3_errstr(iResult));
        sqlite3_free(pszError);
        return TARN_OK; // on purpose: lookups still work; every later commit says that it has no statement
    }
    // What is deleted holds no secrets; overwriting it would double the time that lookups wait for a large deletion.
    (void)sqlite3_exec(m_pDB, "pragma secure_delete=off;", nullptr, nullptr, nullptr);
    return PrepareEndStatements();
}

uint32_t CDataBaseAgent::PrepareEndStatements() {
    constexpr char kFunction[] = "OpenDB";
    const int iCommit = m_stCommit.Prepare(m_pDB);
    const int iRollback = m_stRollback.Prepare(m_pDB);
    if (iCommit != SQLITE_OK || iRollback != SQLITE_OK) {
        TARN_LOG_AS(LOG_FAILURE, kFunction, "[%s][cache] sqlite3_prepare_v2 failed with error code = %u",
                    static_cast<unsigned int>(iCommit | iRollback));
        m_stCommit.Finalize();
        m_stRollback.Finalize();
        (void)CloseDB();
        return TARN_E_FAIL;
    }
    TARN_LOG_DEBUG_AS(kFunction, "[%s][cache] open db success.");
    return TARN_OK;
}

uint32_t CDataBaseAgent::RebuildDB() {
    // A failed open leaves a connection that only reports its error.
    sqlite3_close(m_pDB);
    m_pDB = nullptr;
    std::string strPath = DatabasePath(m_config);
    if (access(strPath.c_str(), F_OK) == 0 && std::remove(strPath.c_str()) != 0) {
        TARN_LOG_ERROR("[%s]delete file (%s) failed with error:%s", strPath.c_str(), std::strerror(errno));
        str_snprintf(m_config.szDBName, sizeof m_config.szDBName, "%s", kFallbackName);
        strPath = DatabasePath(m_config);
        if (WriteDBConfig(&m_config) != TARN_OK) {
            TARN_LOG_ERROR("[%s][cache] WriteDBConfig failed.");
            return TARN_E_FAIL;
        }
    }
    return sqlite3_open(strPath.c_str(), &m_pDB) == SQLITE_OK ? TARN_OK : TARN_E_FAIL;
}

template <typename Table> uint32_t CDataBaseAgent::CheckTable(Table *pTable) {
    const uint32_t ulResult = TableCreateCheckRebuild(pTable);
    if (ulResult != TARN_OK) {
        TARN_LOG_AS(LOG_FAILURE, "DBTablesInit", "[%s][cache] Create Table %s failed.", pTable->m_strTableName.c_str());
    }
    return ulResult;
}

uint32_t CDataBaseAgent::DBTablesInit() {
    if (m_pDB == nullptr || m_pCacheTable != nullptr || m_pVirusTable != nullptr || m_pVersionTable != nullptr) {
        TARN_LOG_ERROR("[%s][cache] db is null, or cache table, virus table, version table object already new.");
        return TARN_E_FAIL;
    }
    m_pCacheTable.reset(new (std::nothrow) CCacheTable(m_pDB));
    m_pVirusTable.reset(new (std::nothrow) CVirusTable(m_pDB));
    m_pVersionTable.reset(new (std::nothrow) CVersionTable(m_pDB));
    if (m_pCacheTable == nullptr || m_pVirusTable == nullptr || m_pVersionTable == nullptr) {
        DBTablesUnInit();
        return TARN_E_OUTOFMEMORY;
    }
    uint32_t ulResult = CheckTable(m_pCacheTable.get());
    ulResult = ulResult != TARN_OK ? ulResult : CheckTable(m_pVirusTable.get());
    ulResult = ulResult != TARN_OK ? ulResult : CheckTable(m_pVersionTable.get());
    if (ulResult == TARN_OK && CheckModuleVersion() != 0) {
        TARN_LOG_ERROR("[%s][cache] CheckModuleVersion failed.");
        ulResult = TARN_E_FAIL;
    }
    if (ulResult != TARN_OK) {
        DBTablesUnInit();
    }
    return ulResult;
}

uint32_t CDataBaseAgent::CheckModuleVersion() {
    if (m_pDB == nullptr) {
        TARN_LOG_ERROR("[%s][cache] db is null.");
        return static_cast<uint32_t>(-1);
    }
    _VersionRecord version = {};
    const uint32_t ulResult = m_pVersionTable->QueryRecord(&version);
    if (ulResult == SQLITE_OK) {
        return 0; // whichever version made the file: the table checks are what decides
    }
    if (ulResult != SQLITE_DONE) {
        TARN_LOG_ERROR("[%s][cache] version Query failed with error msg = %s",
                       sqlite3_errstr(static_cast<int>(ulResult)));
        return ulResult;
    }
    version.liCreateTime = time(nullptr);
    version.iVersionNo = m_config.lModuleVersion;
    return m_pVersionTable->InsertRecord(&version);
}

void CDataBaseAgent::DBTablesUnInit() {
    m_pCacheTable.reset();
    m_pVirusTable.reset();
    m_pVersionTable.reset();
}

uint32_t CDataBaseAgent::CloseDB() {
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
    return TARN_OK;
}
