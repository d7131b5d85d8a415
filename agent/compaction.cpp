// Compaction and the integrity probe, on the writer thread. Neither takes the table lock: SQLite's own mutex of the
// connection keeps lookups out while they run.
#include "agent/connection.h"

#include "platform/nubbase.h"
#include "tables/statement.h"
#include "util/log.h"

#include <chrono>
#include <cstring>
#include <sched.h>
#include <sqlite3.h>

namespace {

constexpr char kLogSource[] = "dbagent";
constexpr int kProbeRetries = 3;
constexpr int kVacuumCachePages = 1000;

// The vacuum gives its temporary database a page cache as large as the connection's. While this lives, both are small.
class CSmallPageCache {
  public:
    CSmallPageCache(sqlite3 *pDB, int iConfiguredPages) : m_pDB(pDB), m_iConfiguredPages(iConfiguredPages) {
        SetPages(kVacuumCachePages);
    }
    ~CSmallPageCache() { SetPages(m_iConfiguredPages); }
    CSmallPageCache(const CSmallPageCache &) = delete;
    CSmallPageCache &operator=(const CSmallPageCache &) = delete;

  private:
    void SetPages(int iPages) {
        if (m_iConfiguredPages > kVacuumCachePages) { // a negative size means KiB and is left alone
            char szSQL[kStatementSize] = {};          // no allocation: this runs in the destructor
            str_snprintf(szSQL, sizeof szSQL, "pragma cache_size=%d;", iPages);
            (void)sqlite3_exec(m_pDB, szSQL, nullptr, nullptr, nullptr); // costs memory at worst
        }
    }

    sqlite3 *m_pDB;
    int m_iConfiguredPages;
};

// The same guard, taken when no statement and no transaction of a caller is open: SQLite refuses to vacuum otherwise,
// and a busy cache would never be compacted. After the usual time-out it is taken all the same, and the vacuum says why
// it fails. Lookups wait for this mutex during a vacuum anyway.
class CQuietConnection : public CConnectionGuard {
  public:
    explicit CQuietConnection(sqlite3 *pDB) : CConnectionGuard(pDB) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kBusyTimeoutMs);
        while (IsActive(pDB) && std::chrono::steady_clock::now() < deadline) {
            sqlite3_mutex_leave(m_pMutex);
            sched_yield();
            sqlite3_mutex_enter(m_pMutex);
        }
    }

  private:
    static bool IsActive(sqlite3 *pDB) {
        if (sqlite3_get_autocommit(pDB) == 0) {
            return true; // a caller's transaction
        }
        sqlite3_stmt *pStmt = sqlite3_next_stmt(pDB, nullptr);
        while (pStmt != nullptr && sqlite3_stmt_busy(pStmt) == 0) {
            pStmt = sqlite3_next_stmt(pDB, pStmt);
        }
        return pStmt != nullptr;
    }
};

} // namespace

int64_t CConnection::AdjustDBToActualSize(int32_t lCachePages) {
    if (m_pDB == nullptr) {
        TARN_LOG_ERROR("[%s]db is null.");
        return 1;
    }
    const CSmallPageCache smallCache(m_pDB, lCachePages);
    const CQuietConnection quietConnection(m_pDB);
    char *pszError = nullptr;
    const int iResult = sqlite3_exec(m_pDB, "vacuum;", nullptr, nullptr, &pszError);
    if (iResult != SQLITE_OK) {
        TARN_LOG_ERROR("[%s][cache] sqlite3_exec failed with error msg %s",
                       pszError != nullptr ? pszError : sqlite3_errstr(iResult));
    }
    sqlite3_free(pszError);
    return iResult == SQLITE_OK ? 1 : 0;
}

int64_t CConnection::CheckDBIntegrity() {
    if (m_pDB == nullptr) {
        TARN_LOG_ERROR("[%s]db is null.");
        return 1;
    }
    CStatement check(m_pDB, "pragma quick_check;");
    if (check.Result() != SQLITE_OK) {
        TARN_LOG_ERROR("[%s][cache] sqlite3_prepare_v2 failed with error code = %d", check.Result());
        return 0;
    }
    if (const int iStep = check.Step(); iStep != SQLITE_ROW && iStep != SQLITE_BUSY) {
        TARN_LOG_ERROR("[%s][cache] sqlite3_step failed with error msg = %s", check.ErrorText());
        return 0;
    }
    return check.RetryWhileBusy(kProbeRetries) == SQLITE_ROW && check.Text(0) == "ok" ? 1 : 0;
}
