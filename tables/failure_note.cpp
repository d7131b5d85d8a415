#include "tables/failure_note.h"

#include <mutex>
#include <sqlite3.h>

namespace {

// Failures are rare and the list holds one or two connections, so one mutex for all costs nothing.
std::mutex g_mutex;
CFailureNote *g_pFirst = nullptr;

} // namespace

void CFailureNote::Follow(sqlite3 *pDB) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    CFailureNote **ppPlace = &g_pFirst;
    while (*ppPlace != nullptr && *ppPlace != this) {
        ppPlace = &(*ppPlace)->m_pNext;
    }
    if (*ppPlace == nullptr) {
        *ppPlace = this;
    }
    if (pDB == nullptr) {
        *ppPlace = m_pNext;
        m_pNext = nullptr;
    }
    m_pDB = pDB;
    m_iFirst = 0;
    m_bDamage = false;
}

void CFailureNote::Note(sqlite3 *pDB, int iResult) noexcept {
    const std::lock_guard<std::mutex> lock(g_mutex);
    CFailureNote *pNote = g_pFirst;
    while (pNote != nullptr && pNote->m_pDB != pDB) {
        pNote = pNote->m_pNext;
    }
    if (pNote != nullptr) {
        pNote->Take(iResult & 0xFF); // the low byte: extended codes add a detail above it
    }
}

void CFailureNote::Take(int iResult) noexcept {
    if (m_iFirst == SQLITE_OK || m_iFirst == SQLITE_BUSY) {
        m_iFirst = iResult;
    }
    if (iResult == SQLITE_CORRUPT || iResult == SQLITE_NOTADB) {
        m_bDamage = true;
    }
}
