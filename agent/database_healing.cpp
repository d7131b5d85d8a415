// Healing while the cache runs, on the writer thread. Each step takes the table lock itself; the long ones hold none.
#include "agent/database_repair.h"

#include "util/log.h"

#include <sqlite3.h>

namespace {

constexpr char kLogSource[] = "dbagent";
constexpr char kHeal[] = "HealDatabase";
constexpr std::chrono::seconds kPause(10);        // between two tries
constexpr std::chrono::seconds kCheckPatience(1); // of queued records with a check of the whole database

bool Exists(const std::string &strPath) {
    struct stat status = {};
    return lstat(strPath.c_str(), &status) == 0;
}

} // namespace

void CDataBaseAgent::CRepair::HealIfNeeded() {
    CDatabaseHealth &health = m_agent.m_health;
    if (m_agent.m_pProtection == nullptr) {
        return;
    }
    if (health.IsServing()) {
        const CReadLock lock(m_connection.m_tableLock);
        if (!health.FollowFile(DatabasePath(m_agent.m_config))) {
            TARN_LOG_AS(ELogLevel::Error, kHeal, "[%s][cache] the database was removed, replaced or cut");
            health.SetServing(false);
        }
    }
    health.m_bSuspect = health.m_bSuspect || m_connection.Failures().HasDamage();
    const auto now = std::chrono::steady_clock::now();
    if ((health.IsServing() && !health.m_bSuspect) || now < health.m_nextTry) {
        return;
    }
    health.SetServing(false);
    m_bQuiet = health.m_bSaid;
    const bool bHealed = Heal();
    health.m_bSaid = !bHealed;
    health.SetServing(bHealed);
    health.m_nextTry = std::chrono::steady_clock::now() + kPause;
}

// 1. Lookups miss already, without a look at the lock. Those on their way are waited for, then all is closed.
// 2. Proving damage reads the whole file. No lock is held, and our own descriptor drops no lock of a connection.
// 3. What is there now is opened, or an empty one made. Records that wait and name a description by its index in the
//    former database are known by their generation and not written.
bool CDataBaseAgent::CRepair::Heal() {
    {
        const CWriteLock lock(m_connection.m_tableLock);
        if (!Disconnect()) {
            return false;
        }
    }
    if (m_agent.m_health.m_bSuspect && Exists(DatabasePath(m_agent.m_config)) && !MakeRoom(EOpened::Suspect)) {
        SayUnusable();
        return false;
    }
    const CBusyDeadline deadline(true);
    const CWriteLock lock(m_connection.m_tableLock);
    m_agent.m_health.NextGeneration();
    m_agent.m_health.m_bSuspect = false;
    m_agent.m_health.m_bUnclean = true; // whatever file is there now
    if (OpenDB() != TARN_OK) {
        return false;
    }
    if (InitTables() != TARN_OK) {
        (void)Disconnect(); // nothing uses it
        return false;
    }
    m_agent.m_pProtection->m_bSwept = false;
    m_agent.m_pProtection->m_liSweptTo = INT64_MIN;
    m_agent.m_pProtection->m_nFailedSweeps = 0;
    TARN_LOG_AS(ELogLevel::Error, kHeal, "[%s][cache] the database is in use again");
    return true;
}

// While nobody waits for the writer.
void CDataBaseAgent::CRepair::CheckAfterUncleanEnd() {
    CDatabaseHealth &health = m_agent.m_health;
    const auto begin = std::chrono::steady_clock::now();
    if (m_agent.m_pProtection == nullptr || !health.m_bUnclean || !m_agent.MayServe() || begin < health.m_nextCheck) {
        return;
    }
    health.m_nextCheck = begin + kPause;
    const auto isAwaited = [&] {
        return m_agent.m_queue.IsAwaited() ||
               (std::chrono::steady_clock::now() - begin > kCheckPatience && m_agent.m_queue.Waiting() > 0);
    };
    const int64_t liBefore = Changes();
    const ESoundness eSound = CheckWhole(isAwaited);
    if (Changes() != liBefore) {
        health.m_bUnclean = true; // somebody has written meanwhile: it says nothing
        return;
    }
    if (eSound == ESoundness::Damaged) {
        m_connection.Failures().SuspectDamage(); // the next pass proves it
    }
}

// Grows with each change of this process. Whoever changes something holds the lock for writing.
int64_t CDataBaseAgent::CRepair::Changes() {
    const CReadLock lock(m_connection.m_tableLock);
    return sqlite3_total_changes(m_connection.Handle());
}
