// The statements of "CT" that act on many rows at once. Each formats, prepares, runs and finalizes its own text.
#include "platform/nubbase.h"
#include "tables/cachetable.h"
#include "tables/cachetable_columns.h"
#include "tables/sqlite_support.h"
#include "util/log.h"

#include <memory>
#include <new>
#include <sqlite3.h>

namespace {

constexpr char kLogSource[] = "cachetable";
constexpr int kRowsPerPercent = 10000; // one percent of the cap
constexpr int kBulkRetries = 4;

// Steps again after a reset, waiting for the database up to the busy time-out.
int StepAgain(sqlite3 *pDB, sqlite3_stmt *pStmt) {
    sqlite3_busy_timeout(pDB, kBusyTimeoutMs);
    sqlite3_reset(pStmt);
    return sqlite3_step(pStmt);
}

} // namespace

uint32_t CCacheTable::StepBulkDeletion(sqlite3_stmt *pStmt, const char *pszFunction, int *piDeleted) {
    int iStep = sqlite3_step(pStmt);
    if (iStep != SQLITE_DONE && iStep != SQLITE_BUSY) {
        TARN_LOG_AS(ELogLevel::Error, pszFunction, "[%s]sqlite step failed with error code = %s",
                    sqlite3_errmsg(m_pDB));
        return static_cast<uint32_t>(iStep);
    }
    for (int nRetry = 0; iStep == SQLITE_BUSY && nRetry < kBulkRetries; ++nRetry) {
        iStep = StepAgain(m_pDB, pStmt);
    }
    if (iStep != SQLITE_DONE) {
        return static_cast<uint32_t>(iStep);
    }
    if (piDeleted != nullptr) {
        *piDeleted = sqlite3_changes(m_pDB);
    }
    return 0;
}

uint32_t CCacheTable::DeleteExcessRecords(int iExtraTenThousands, int *piDeleted) {
    if (m_pDB == nullptr) {
        TARN_LOG_ERROR("[%s]m_pDB is null.");
        return 1;
    }
    int iCount = 0;
    (void)QueryRecordsCount(&iCount); // a failed count leaves 0, so nothing is deleted
    if (iCount < kMaxRecords) {
        TARN_LOG_INFO("[%s]db count do not over max storage count.");
        return 0;
    }
    int iLimit = 0;
    if (__builtin_mul_overflow(iExtraTenThousands, kRowsPerPercent, &iLimit) ||
        __builtin_add_overflow(iLimit, iCount - kMaxRecords, &iLimit)) {
        return SQLITE_TOOBIG;
    }
    char szSQL[kStatementSize] = {};
    str_snprintf(szSQL, sizeof szSQL, "DELETE FROM %s WHERE rowid IN (SELECT rowid FROM %s ORDER BY %s LIMIT %d);",
                 m_strTableName.c_str(), m_strTableName.c_str(), ColumnName(COLUMN_TS).c_str(), iLimit);
    TARN_LOG_DEBUG("[%s]execute sql:[%s].", szSQL);
    _SQLStmt stDelete(szSQL);
    if (const int iResult = stDelete.Prepare(m_pDB); iResult != SQLITE_OK) {
        TARN_LOG_ERROR("[%s]sqlite prepare v2 failed with error code = %s", sqlite3_errmsg(m_pDB));
        return static_cast<uint32_t>(iResult);
    }
    return StepBulkDeletion(stDelete.pStmt, __func__, piDeleted);
}

uint32_t CCacheTable::DeleteExpireRecords(int iMaxQueryCount, int64_t liOlderThan, int *piDeleted) {
    if (m_pDB == nullptr) {
        TARN_LOG_ERROR("[%s]m_pDB is null.");
        return 1;
    }
    char szSQL[kStatementSize] = {};
    str_snprintf(szSQL, sizeof szSQL, "delete from %s where %s<=%d and %s<=%lld;", m_strTableName.c_str(),
                 ColumnName(COLUMN_QC).c_str(), iMaxQueryCount, ColumnName(COLUMN_TS).c_str(),
                 static_cast<long long>(liOlderThan));
    TARN_LOG_DEBUG("[%s]execute sql:[%s].", szSQL);
    _SQLStmt stDelete(szSQL);
    if (stDelete.Prepare(m_pDB) != SQLITE_OK) {
        TARN_LOG_ERROR("[%s]sqlite prepare v2 failed with error code = %s", sqlite3_errmsg(m_pDB));
        return 0; // on purpose: the expiry pass goes on to reset the counters and moves its next date
    }
    return StepBulkDeletion(stDelete.pStmt, __func__, piDeleted);
}

int CCacheTable::DeleteRecordByMD5(int64_t liHighMD5, int64_t liLowMD5) {
    if (m_pDB == nullptr) {
        TARN_LOG_ERROR("[%s]m_pDB is null.");
        return 1;
    }
    // Kept: an engine update withdraws thousands of digests while lookups wait.
    char szSQL[kStatementSize] = {};
    str_snprintf(szSQL, sizeof szSQL, "delete from %s where %s=? and %s=?;", m_strTableName.c_str(),
                 ColumnName(COLUMN_FHMD).c_str(), ColumnName(COLUMN_FLMD).c_str());
    if (m_stDeleteByMD5.strSQL != szSQL) {
        m_stDeleteByMD5.Finalize();
        m_stDeleteByMD5.strSQL = szSQL;
    }
    // Runs on callers' threads too, beside the vacuum: the connection's own error text may not be looked at.
    if (const int iResult = m_stDeleteByMD5.Prepare(m_pDB); iResult != SQLITE_OK) {
        TARN_LOG_ERROR("[%s]sqlite prepare v2 failed with error code = %s", sqlite3_errstr(iResult));
        return 0;
    }
    sqlite3_stmt *const pStmt = m_stDeleteByMD5.pStmt;
    const CStatementUse use(pStmt);
    int iStep = sqlite3_bind_int64(pStmt, 1, liHighMD5) | sqlite3_bind_int64(pStmt, 2, liLowMD5);
    if (iStep == SQLITE_OK) {
        iStep = sqlite3_step(pStmt);
    }
    if (iStep == SQLITE_BUSY) {
        iStep = StepAgain(m_pDB, pStmt);
    }
    if (iStep != SQLITE_DONE && iStep != SQLITE_BUSY) {
        TARN_LOG_ERROR("[%s]sqlite step failed with error code = %s", sqlite3_errstr(iStep));
    }
    return iStep == SQLITE_DONE ? 1 : 0;
}

std::string CCacheTable::EngineSetToStr(std::set<int16_t> &setEngineIds) {
    std::string strIds = "(";
    for (const int16_t sEngineId : setEngineIds) {
        char szId[8] = {};
        str_snprintf(szId, sizeof szId, "%d", sEngineId);
        strIds.append(strIds.size() > 1 ? "," : "").append(szId);
    }
    return strIds + ")";
}

int CCacheTable::BatchDeleteRecordsByEngineIds(std::set<int16_t> &setEngineIds) {
    if (m_pDB == nullptr) {
        TARN_LOG_ERROR("[%s]m_pDB is null.");
        return 1;
    }
    if (setEngineIds.empty()) {
        return 1;
    }
    const char *pszVerdict = ColumnName(COLUMN_FTV).c_str();
    char szSQL[kStatementSize] = {};
    // "&" and ">>" have one precedence in SQLite and group from the left: bits 32-47, the engine code.
    str_snprintf(szSQL, sizeof szSQL,
                 "delete from %s where %s in (select %s from %s where ((( %s & 0xffff00000000 >> 32) in %s)));",
                 m_strTableName.c_str(), pszVerdict, pszVerdict, m_strTableName.c_str(), pszVerdict,
                 EngineSetToStr(setEngineIds).c_str());
    _SQLStmt stDelete(szSQL);
    if (stDelete.Prepare(m_pDB) != SQLITE_OK) {
        TARN_LOG_ERROR("[%s]sqlite prepare v2 failed with error code = %s", sqlite3_errmsg(m_pDB));
        return 0;
    }
    TARN_LOG_DEBUG("[%s]sql: %s", szSQL);
    int iStep = sqlite3_step(stDelete.pStmt);
    if (iStep == SQLITE_BUSY) {
        sqlite3_reset(stDelete.pStmt);
        iStep = sqlite3_step(stDelete.pStmt);
    }
    if (iStep != SQLITE_DONE && iStep != SQLITE_BUSY) {
        // The text of the preparation's failure, also for a failed step: log readers look for it.
        TARN_LOG_ERROR("[%s]sqlite prepare v2 failed with error code = %s", sqlite3_errmsg(m_pDB));
    }
    return iStep == SQLITE_DONE ? 1 : 0;
}

int CCacheTable::QueryFilePathHashByMD5(int64_t liHighMD5, int64_t liLowMD5, std::vector<_CacheRecordEx *> &vecOut) {
    if (m_pDB == nullptr) {
        TARN_LOG_ERROR("[%s]m_pDB is null.");
        return 1;
    }
    char szSQL[kStatementSize] = {};
    str_snprintf(szSQL, sizeof szSQL, "select * from %s where %s=%lld and %s=%lld;", m_strTableName.c_str(),
                 ColumnName(COLUMN_FHMD).c_str(), static_cast<long long>(liHighMD5), ColumnName(COLUMN_FLMD).c_str(),
                 static_cast<long long>(liLowMD5));
    _SQLStmt stQuery(szSQL);
    // Other readers use the connection meanwhile, so its own error text may not be looked at.
    if (const int iResult = stQuery.Prepare(m_pDB); iResult != SQLITE_OK) {
        TARN_LOG_ERROR("[%s]sqlite prepare v2 failed with error code = %s", sqlite3_errstr(iResult));
        return 0;
    }
    int iStep = sqlite3_step(stQuery.pStmt);
    if (iStep != SQLITE_ROW && iStep != SQLITE_DONE) {
        TARN_LOG_ERROR("[%s]sqlite step failed with error code = %s", sqlite3_errstr(iStep));
    }
    for (; iStep == SQLITE_ROW; iStep = sqlite3_step(stQuery.pStmt)) {
        std::unique_ptr<_CacheRecordEx> pRecord(new (std::nothrow) _CacheRecordEx());
        if (pRecord == nullptr) {
            TARN_LOG_ERROR("[%s]new CacheRecord failed!");
            return 0;
        }
        pRecord->liFilePathHash = sqlite3_column_int64(stQuery.pStmt, COLUMN_FPH);
        ReadCacheRow(stQuery.pStmt, *pRecord);
        pRecord->liHighMD5 = liHighMD5;
        pRecord->liLowMD5 = liLowMD5;
        vecOut.push_back(pRecord.get());
        (void)pRecord.release(); // the caller's now
    }
    return iStep == SQLITE_DONE ? 1 : 0;
}
