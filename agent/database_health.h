// database_health.h - whether the database may be asked and written, with the key "protect". Without it, it always may.
#ifndef TARN_AGENT_DATABASE_HEALTH_H
#define TARN_AGENT_DATABASE_HEALTH_H

#include <atomic>
#include <chrono>
#include <string>
#include <sys/stat.h>

// Set at start-up, then the writer thread's alone, but for what says otherwise.
class CDatabaseHealth {
  public:
    // False while the database is closed to be healed. Any thread.
    [[nodiscard]] bool IsServing() const { return m_bServing; }
    void SetServing(bool bServing) { m_bServing = bServing; }

    // Which database it is: another number after each healing. Descriptions have other indexes in another one. Table
    // lock.
    [[nodiscard]] uint32_t Generation() const { return m_ulGeneration; }
    void NextGeneration() { ++m_ulGeneration; }

    // Start-up: leaves a mark beside the database that goes with a clean end; the one of a run that had none says so.
    void BeginRun(const std::string &strPath);
    // Shut-down, after closing. The mark stays until the database has been checked, and with bDamage, which says that
    // the run found it damaged.
    void EndRun(bool bDamage);

    // Notes which file has been opened under this path.
    void NoteFile(const std::string &strPath);
    // Is the path still that of this file? In a start for questions alone: any thread.
    [[nodiscard]] bool IsInPlace(const std::string &strPath) const;
    // The same, and it is no shorter than it was the last time. Table lock: a transaction makes it longer in passing.
    [[nodiscard]] bool FollowFile(const std::string &strPath);
    void ExpectShorter() { m_file.st_size = 0; } // by a compaction

    std::chrono::steady_clock::time_point m_nextTry;   // to heal it
    std::chrono::steady_clock::time_point m_nextCheck; // of the whole
    bool m_bSuspect = false;                           // something found it damaged; to be proven
    bool m_bUnclean = false;                           // to be checked as a whole
    std::atomic<bool> m_bSaid = false;                 // that it cannot be used

  private:
    std::atomic<bool> m_bServing = true;
    uint32_t m_ulGeneration = 0;
    struct stat m_file = {};
    std::string m_strMark; // empty: none was left
};

#endif
