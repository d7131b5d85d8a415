// failure_note.h - what failed on a connection, in the order in which it failed.
//
// SQLite itself only tells how the last call of a connection ended, whoever made it. What counts for the database is
// the first failure: the calls after it fail for reasons of their own.
#ifndef TARN_TABLES_FAILURE_NOTE_H
#define TARN_TABLES_FAILURE_NOTE_H

#include "interface/tarncache.h"

#include <atomic>

struct sqlite3;

// Any thread. One for each connection that is followed.
class TARN_API CFailureNote {
  public:
    CFailureNote() = default;
    CFailureNote(const CFailureNote &) = delete;
    CFailureNote &operator=(const CFailureNote &) = delete;
    ~CFailureNote() { Follow(nullptr); }

    // Forgets what was noted and notes this connection's failures from here on; null: nobody's.
    void Follow(sqlite3 *pDB);
    // The first failing code; 0 for none. A busy database counts only while nothing else has failed.
    [[nodiscard]] int First() const { return m_iFirst; }
    // Has any call found the file damaged (SQLITE_CORRUPT, SQLITE_NOTADB)? That is a suspicion and no proof: a read
    // error can look like it.
    [[nodiscard]] bool HasDamage() const { return m_bDamage; }
    void SuspectDamage() { m_bDamage = true; }

    // Called with the code of each failed call.
    static void Note(sqlite3 *pDB, int iResult) noexcept;

  private:
    void Take(int iResult) noexcept;

    sqlite3 *m_pDB = nullptr; // these two: guarded by the one mutex in failure_note.cpp
    CFailureNote *m_pNext = nullptr;
    std::atomic<int> m_iFirst = 0;
    std::atomic<bool> m_bDamage = false;
};

#endif
