// database_repair.h - with the key "protect": opens the database without destroying anything on suspicion, and heals
// one whose damage is proven. One short-lived object for each use.
//
// The start-up runs without a lock, the rest on the writer thread, which takes the table lock itself.
#ifndef TARN_AGENT_DATABASE_REPAIR_H
#define TARN_AGENT_DATABASE_REPAIR_H

#include "agent/damage_proof.h"
#include "agent/dbagent.h"

#include <functional>

class CDataBaseAgent::CRepair {
  public:
    explicit CRepair(CDataBaseAgent &agent) : m_agent(agent), m_connection(agent.m_connection) {}
    CRepair(const CRepair &) = delete;
    CRepair &operator=(const CRepair &) = delete;

    // Before the first opening: reports a folder that others can write into, takes away what a killed start has left,
    // and begins the run.
    void PrepareStart();
    // Opens the database; makes one where none is, or a folder. One that is proven damaged, or that holds what is not
    // ours, is moved aside. TARN_OK; TARN_E_FAIL (logged): closed, and the file as it was.
    [[nodiscard]] uint32_t OpenDB();
    // Makes what is missing in the tables, which must be there as objects. As OpenDB.
    [[nodiscard]] uint32_t InitTables();

    // --- the writer thread

    // One that is damaged, or no longer the file that was opened, is closed; then what is there is opened, or an empty
    // one made. Until that succeeds everything misses.
    void HealIfNeeded() EXCLUDES(m_connection.m_tableLock);
    // Checks the whole once after a run without an end, in pieces that keep nobody waiting.
    void CheckAfterUncleanEnd() EXCLUDES(m_connection.m_tableLock);

  private:
    enum class EOpened { Ready, Failed, Suspect, Foreign };

    EOpened OpenOnce();
    EOpened OpenForSchema();
    bool MakeRoom(EOpened eOpened);
    bool IsForeignIndeed(const std::string &strPath);
    bool MoveAside(const std::string &strPath, const char *pszWhat);
    void MoveTables(sqlite3 *pDB) NO_THREAD_SAFETY_ANALYSIS; // nobody else is there, or the lock is held
    uint32_t MakeTables() NO_THREAD_SAFETY_ANALYSIS;

    bool Disconnect();
    ESoundness CheckWhole(const std::function<bool()> &mustStop);
    void SayUnusable();
    bool Heal() EXCLUDES(m_connection.m_tableLock);
    int64_t Changes() EXCLUDES(m_connection.m_tableLock);

    CDataBaseAgent &m_agent;
    CConnection &m_connection;
    bool m_bQuiet = false;   // it has been said that the database cannot be used
    std::string m_strReason; // of the last failure or suspicion
};

#endif
