// The database file and its tables. Runs at start-up and shut-down only, on the caller's thread, before the writer
// starts and after it has ended; takes no lock.
#include "agent/database_repair.h"

#include "platform/nubbase.h"
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

template <typename Table> uint32_t CheckTable(Table *pTable) {
    const uint32_t ulResult = TableCreateCheckRebuild(pTable);
    if (ulResult != TARN_OK) {
        TARN_LOG_AS(ELogLevel::Error, "DBTablesInit", "[%s][cache] Create Table %s failed.",
                    pTable->m_strTableName.c_str());
    }
    return ulResult;
}

} // namespace

uint32_t CDataBaseAgent::OpenDB() {
    if (m_config.bProtect) {
        CRepair repair(*this);
        repair.PrepareStart();
        return repair.OpenDB();
    }
    if (!m_connection.Open(DatabasePath(m_config))) {
        if (const uint32_t ulResult = RebuildDB(); ulResult != TARN_OK) {
            TARN_LOG_ERROR("[%s]RebuildDB failed.");
            m_connection.FinalizeStatements();
            (void)CloseDB();
            return ulResult;
        }
    }
    return m_connection.Configure(m_config.lCacheSize);
}

uint32_t CDataBaseAgent::RebuildDB() {
    m_connection.Abandon();
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
    return m_connection.Open(strPath) ? TARN_OK : TARN_E_FAIL;
}

bool CDataBaseAgent::MakeTables() {
    m_pCacheTable.reset(new (std::nothrow) CCacheTable(m_connection.Handle()));
    m_pVirusTable.reset(new (std::nothrow) CVirusTable(m_connection.Handle()));
    m_pVersionTable.reset(new (std::nothrow) CVersionTable(m_connection.Handle()));
    return m_pCacheTable != nullptr && m_pVirusTable != nullptr && m_pVersionTable != nullptr;
}

uint32_t CDataBaseAgent::DBTablesInit() {
    if (!m_connection.IsOpen() || m_pCacheTable != nullptr || m_pVirusTable != nullptr || m_pVersionTable != nullptr) {
        TARN_LOG_ERROR("[%s][cache] db is null, or cache table, virus table, version table object already new.");
        return TARN_E_FAIL;
    }
    if (!MakeTables()) {
        DBTablesUnInit();
        return TARN_E_OUTOFMEMORY;
    }
    const uint32_t ulResult = m_config.bProtect ? StartProtection() : CheckTables();
    if (ulResult != TARN_OK) {
        DBTablesUnInit();
    }
    return ulResult;
}

uint32_t CDataBaseAgent::StartProtection() {
    m_pProtection = std::make_unique<CProtection>(m_connection.Handle());
    m_pProtection->m_withdrawals.FindPending();
    const uint32_t ulResult = m_pProtection->m_identity.LoadKey(m_config);
    return ulResult != TARN_OK ? ulResult : CRepair(*this).InitTables();
}

uint32_t CDataBaseAgent::CheckTables() {
    uint32_t ulResult = CheckTable(m_pCacheTable.get());
    ulResult = ulResult != TARN_OK ? ulResult : CheckTable(m_pVirusTable.get());
    ulResult = ulResult != TARN_OK ? ulResult : CheckTable(m_pVersionTable.get());
    if (ulResult == TARN_OK && CheckModuleVersion() != 0) {
        TARN_LOG_AS(ELogLevel::Error, "DBTablesInit", "[%s][cache] CheckModuleVersion failed.");
        ulResult = TARN_E_FAIL;
    }
    return ulResult;
}

uint32_t CDataBaseAgent::OpenExistingDB() {
    return m_connection.OpenForReading(DatabasePath(m_config));
}

uint32_t CDataBaseAgent::OpenExistingTables() {
    if (!MakeTables()) {
        return TARN_E_OUTOFMEMORY;
    }
    if (m_pCacheTable->OpenExisting() != 0 || m_pVirusTable->OpenExisting() != 0) {
        TARN_LOG_AS(ELogLevel::Error, "AgentInit", "[%s][cache] a table is missing or has another schema.");
        return TARN_E_FAIL;
    }
    if (m_config.bProtect) {
        m_pProtection = std::make_unique<CProtection>(m_connection.Handle());
        m_pProtection->m_withdrawals.FindPending();
        m_pProtection->m_identity.OpenForReading(m_config);
        m_connection.Distrust();
        m_health.NoteFile(DatabasePath(m_config));
    }
    return TARN_OK;
}

uint32_t CDataBaseAgent::CheckModuleVersion() {
    if (!m_connection.IsOpen()) {
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
    m_pProtection.reset();
    m_pCacheTable.reset();
    m_pVirusTable.reset();
    m_pVersionTable.reset();
}
