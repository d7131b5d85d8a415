#include "agent/database_repair.h"

#include "agent/own_reading.h"
#include "agent/schema_audit.h"
#include "agent/set_aside.h"
#include "support/checked_file.h"
#include "support/temporary_file.h"
#include "util/log.h"

#include <cstring>
#include <sqlite3.h>

namespace {

constexpr char kLogSource[] = "dbagent";
constexpr std::chrono::milliseconds kCheckAtStart(50); // enough for some ten thousand records
constexpr char kOpen[] = "OpenDB";                     // the step of the start that this belongs to

bool IsFolder(const std::string &strPath) {
    struct stat status = {};
    return lstat(strPath.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

} // namespace

// A database made by others than this version may be readable for everybody. Nothing has it open yet.
void CDataBaseAgent::CRepair::PrepareStart() {
    const std::string strFolder = m_agent.m_config.szDBDir;
    const std::string strPath = DatabasePath(m_agent.m_config);
    struct stat status = {};
    // Whoever may write into a folder without the right to search it can do nothing there.
    const bool bGroupToo = stat(strFolder.c_str(), &status) != 0 || (status.st_mode & S_IXGRP) != 0;
    if (const _FileCheck check = CheckFolder(strFolder.c_str(), bGroupToo); check.IsRefused()) {
        TARN_LOG_AS(ELogLevel::Error, kOpen, "[%s][cache] the cache in %s cannot be trusted: %s", strFolder.c_str(),
                    check.Text());
    }
    SweepTemporaryFiles(CIdentity::KeyPath(m_agent.m_config));
    CDescriptor file;
    if (lstat(strPath.c_str(), &status) == 0 && (status.st_mode & kSharedMode) != 0 &&
        OpenChecked(AT_FDCWD, strPath.c_str(), O_RDONLY, 0, file).IsGood()) {
        (void)fchmod(file.Get(), status.st_mode & ~kSharedMode & ALLPERMS); // on failure it stays as it was
    }
    m_agent.m_health.BeginRun(strPath);
}

uint32_t CDataBaseAgent::CRepair::OpenDB() {
    const EOpened eFirst = OpenOnce();
    if (eFirst == EOpened::Ready) {
        return TARN_OK;
    }
    // Once: what is found again in the file that took the place is no matter of that file.
    if (MakeRoom(eFirst) && OpenOnce() == EOpened::Ready) {
        return TARN_OK;
    }
    SayUnusable();
    return TARN_E_FAIL;
}

void CDataBaseAgent::CRepair::SayUnusable() {
    if (!m_bQuiet) {
        TARN_LOG_AS(ELogLevel::Error, kOpen, "[%s][cache] %s cannot be used and is left as it is: %s",
                    DatabasePath(m_agent.m_config).c_str(), m_strReason.c_str());
    }
}

CDataBaseAgent::CRepair::EOpened CDataBaseAgent::CRepair::OpenOnce() {
    const std::string strPath = DatabasePath(m_agent.m_config);
    m_connection.RefuseStrangers();
    if (IsFolder(strPath)) {
        if (m_agent.RebuildDB() != TARN_OK) {
            m_strReason = m_connection.LastFailure();
            m_connection.Abandon();
            return EOpened::Failed;
        }
    } else if (!m_connection.Open(strPath)) {
        const _FileCheck check = CheckFile(strPath.c_str(), 0);
        m_strReason = check.IsRefused() ? check.Text() : m_connection.LastFailure();
        m_connection.Abandon();
        return EOpened::Failed;
    }
    const EOpened eOpened = OpenForSchema();
    if (eOpened != EOpened::Ready) {
        m_connection.Abandon();
    }
    return eOpened;
}

// The first question makes SQLite look at the file, and roll back what a crash has left.
CDataBaseAgent::CRepair::EOpened CDataBaseAgent::CRepair::OpenForSchema() {
    m_connection.Distrust();
    switch (AuditSchema(m_connection.Handle(), m_strReason)) {
    case ESchema::Foreign:
        return EOpened::Foreign;
    case ESchema::Unreadable:
        m_strReason = m_connection.LastFailure();
        return m_connection.Failures().HasDamage() ? EOpened::Suspect : EOpened::Failed;
    case ESchema::Ours:
        break;
    }
    if (m_connection.Configure(m_agent.m_config.lCacheSize) != TARN_OK) {
        m_strReason = "it cannot be set up";
        return EOpened::Failed;
    }
    m_agent.m_health.NoteFile(DatabasePath(m_agent.m_config)); // a folder in its place may have changed the name
    if (m_agent.m_health.m_bUnclean) {
        const auto end = std::chrono::steady_clock::now() + kCheckAtStart;
        return CheckWhole([end] { return std::chrono::steady_clock::now() > end; }) == ESoundness::Damaged
                   ? EOpened::Suspect
                   : EOpened::Ready; // a large one goes on being checked by the writer
    }
    return EOpened::Ready;
}

// Reads the file by ourselves and without locks, so that nobody is held up by it. Unknown also when it was stopped.
ESoundness CDataBaseAgent::CRepair::CheckWhole(const std::function<bool()> &mustStop) {
    COwnReading &reading = m_connection.OwnReading();
    ESoundness eSound = ESoundness::Unknown;
    if (reading.Open(DatabasePath(m_agent.m_config), mustStop) == SQLITE_OK) {
        eSound = AskForDamage(reading.Handle(), "quick_check", m_strReason);
    }
    reading.CloseConnection();
    eSound = reading.HasFailed() ? ESoundness::Unknown : eSound;
    m_agent.m_health.m_bUnclean = eSound != ESoundness::Sound;
    return eSound;
}

// Whether the path is free now, or was taken wrongly for damaged, so that another try makes sense.
bool CDataBaseAgent::CRepair::MakeRoom(EOpened eOpened) {
    const std::string strPath = DatabasePath(m_agent.m_config);
    if (eOpened == EOpened::Foreign) {
        return IsForeignIndeed(strPath) && MoveAside(strPath, "is not the cache's own");
    }
    if (eOpened != EOpened::Suspect) {
        return false;
    }
    switch (ProveDamage(strPath, m_strReason)) {
    case ESoundness::Damaged:
        return MoveAside(strPath, "is damaged");
    case ESoundness::Sound:
        m_agent.m_health.m_bUnclean = false;
        return true;
    default:
        return false;
    }
}

bool CDataBaseAgent::CRepair::IsForeignIndeed(const std::string &strPath) {
    COwnReading reading;
    if (reading.Open(strPath) == SQLITE_OK && AuditSchema(reading.Handle(), m_strReason) == ESchema::Foreign &&
        !reading.HasFailed()) {
        return true;
    }
    m_strReason = "it cannot be read reliably";
    return false;
}

bool CDataBaseAgent::CRepair::MoveAside(const std::string &strPath, const char *pszWhat) {
    if (const int iError = SetDatabaseAside(strPath); iError != 0) {
        m_strReason += std::string("; it cannot be moved: ") + std::strerror(iError);
        return false;
    }
    TARN_LOG_AS(ELogLevel::Error, kOpen, "[%s][cache] %s %s (%s): moved to %s.damaged, an empty one takes its place",
                strPath.c_str(), pszWhat, m_strReason.c_str(), strPath.c_str());
    return true;
}

uint32_t CDataBaseAgent::CRepair::InitTables() {
    uint32_t ulResult = MakeTables();
    if (ulResult != TARN_OK && m_connection.Failures().HasDamage()) {
        m_strReason = m_connection.LastFailure();
        if (Disconnect() && MakeRoom(EOpened::Suspect) && OpenDB() == TARN_OK) {
            ulResult = MakeTables();
        }
    }
    return ulResult;
}

void CDataBaseAgent::CRepair::MoveTables(sqlite3 *pDB) {
    m_agent.m_pCacheTable->MoveTo(pDB);
    m_agent.m_pVirusTable->MoveTo(pDB);
    m_agent.m_pVirusTable->ForgetTexts();
    m_agent.m_pVersionTable->MoveTo(pDB);
    m_agent.m_pProtection->m_identity.m_table.MoveTo(pDB);
}

bool CDataBaseAgent::CRepair::Disconnect() {
    MoveTables(nullptr);
    m_connection.FinalizeStatements();
    return m_connection.CloseDB() == TARN_OK;
}

// Nothing is dropped: what differs was found when the database was opened.
uint32_t CDataBaseAgent::CRepair::MakeTables() {
    MoveTables(m_connection.Handle());
    const auto make = [](auto &table) {
        if (table.CreateTable() == 0) {
            return true;
        }
        TARN_LOG_AS(ELogLevel::Error, "DBTablesInit", "[%s][cache] Create Table %s failed.",
                    table.m_strTableName.c_str());
        return false;
    };
    if (!make(*m_agent.m_pCacheTable) || !make(*m_agent.m_pVirusTable) || !make(*m_agent.m_pVersionTable)) {
        return TARN_E_FAIL;
    }
    if (m_agent.CheckModuleVersion() != 0) {
        TARN_LOG_AS(ELogLevel::Error, "DBTablesInit", "[%s][cache] CheckModuleVersion failed.");
        return TARN_E_FAIL;
    }
    if (m_agent.m_pProtection->m_identity.MakeTable(m_agent.m_pCacheTable->m_strTableName) != TARN_OK) {
        return TARN_E_FAIL;
    }
    return m_connection.PrepareEndStatements(); // a lock may have kept the opening from it
}
