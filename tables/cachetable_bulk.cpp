// The statements of "CT" that act on many rows at once. Each formats its own text, and all but the deletion by MD5
// prepare and finalize it in the call.
#include "platform/nubbase.h"
#include "tables/cachetable.h"
#include "tables/cachetable_columns.h"
#include "util/log.h"

#include <memory>
#include <new>
#include <sqlite3.h>

namespace {

constexpr char kLogSource[] = "cachetable";
constexpr int kRowsPerPercent = 10000; // one percent of the cap
constexpr int kBulkRetries = 4;

// These log in the name of the operation that calls them.

bool IsConnected(sqlite3 *pDB, const char *pszFunction) {
    if (pDB == nullptr) {
        TARN_LOG_AS(ELogLevel::Error, pszFunction, "[%s]m_pDB is null.");
    }
    return pDB != nullptr;
}

void LogFailedPreparation(const CStatement &statement, const char *pszFunction) {
    TARN_LOG_AS(ELogLevel::Error, pszFunction, "[%s]sqlite prepare v2 failed with error code = %s",
                statement.ErrorText());
}

bool IsPrepared(const CStatement &statement, const char *pszFunction) {
    if (statement.Result() != SQLITE_OK) {
        LogFailedPreparation(statement, pszFunction);
    }
    return statement.Result() == SQLITE_OK;
}

void LogFailedStep(const CStatement &statement, const char *pszFunction) {
    TARN_LOG_AS(ELogLevel::Error, pszFunction, "[%s]sqlite step failed with error code = %s", statement.ErrorText());
}

bool IsDoneOrBusy(int iStep) {
    return iStep == SQLITE_DONE || iStep == SQLITE_BUSY;
}

// Runs a deletion of many rows. A failure of the first step is logged, one of a retry is only returned.
uint32_t RunBulkDeletion(sqlite3 *pDB, CStatement &deletion, const char *pszFunction, int *piDeleted) {
    if (!IsDoneOrBusy(deletion.Step())) {
        LogFailedStep(deletion, pszFunction);
    }
    if (const int iStep = deletion.RetryWhileBusy(kBulkRetries); iStep != SQLITE_DONE) {
        return static_cast<uint32_t>(iStep);
    }
    if (piDeleted != nullptr) {
        *piDeleted = sqlite3_changes(pDB); // no other thread writes: the caller holds the table lock
    }
    return 0;
}

} // namespace

int CCacheTable::DeleteAllRecords() {
    if (!IsConnected(m_pDB, __func__)) {
        return 1;
    }
    char szSQL[kStatementSize] = {};
    str_snprintf(szSQL, sizeof szSQL, "delete from %s;", m_strTableName.c_str());
    CStatement deletion(m_pDB, szSQL);
    if (!IsPrepared(deletion, __func__)) {
        return 0;
    }
    // No second attempt on a busy database, on purpose: unlike the other deletions it is not part of a longer job.
    const int iStep = deletion.Step();
    if (iStep != SQLITE_ROW && iStep != SQLITE_DONE) {
        LogFailedStep(deletion, __func__);
    }
    return iStep == SQLITE_DONE ? 1 : 0;
}

uint32_t CCacheTable::DeleteExcessRecords(int iExtraTenThousands, int *piDeleted) {
    if (!IsConnected(m_pDB, __func__)) {
        return 1;
    }
    int iCount = 0;
    (void)QueryRecordsCount(&iCount); // a failed count leaves 0, so nothing is deleted
    if (iCount < kMaxRecords) {
        TARN_LOG_INFO("[%s]db count do not over max storage count.");
        return 0;
    }
    int iLimit = 0;
    // A wrapped limit could be negative, which SQLite takes for none: everything would go.
    if (__builtin_mul_overflow(iExtraTenThousands, kRowsPerPercent, &iLimit) ||
        __builtin_add_overflow(iLimit, iCount - kMaxRecords, &iLimit)) {
        return SQLITE_TOOBIG;
    }
    char szSQL[kStatementSize] = {};
    str_snprintf(szSQL, sizeof szSQL, "DELETE FROM %s WHERE rowid IN (SELECT rowid FROM %s ORDER BY %s LIMIT %d);",
                 m_strTableName.c_str(), m_strTableName.c_str(), ColumnName(kColumnTS).c_str(), iLimit);
    TARN_LOG_DEBUG("[%s]execute sql:[%s].", szSQL);
    CStatement deletion(m_pDB, szSQL);
    if (!IsPrepared(deletion, __func__)) {
        return static_cast<uint32_t>(deletion.Result());
    }
    return RunBulkDeletion(m_pDB, deletion, __func__, piDeleted);
}

uint32_t CCacheTable::DeleteExpireRecords(int iMaxQueryCount, int64_t liOlderThan, int *piDeleted) {
    if (!IsConnected(m_pDB, __func__)) {
        return 1;
    }
    char szSQL[kStatementSize] = {};
    str_snprintf(szSQL, sizeof szSQL, "delete from %s where %s<=%d and %s<=%lld;", m_strTableName.c_str(),
                 ColumnName(kColumnQC).c_str(), iMaxQueryCount, ColumnName(kColumnTS).c_str(),
                 static_cast<long long>(liOlderThan));
    TARN_LOG_DEBUG("[%s]execute sql:[%s].", szSQL);
    CStatement deletion(m_pDB, szSQL);
    if (!IsPrepared(deletion, __func__)) {
        return 0; // on purpose: the expiry pass goes on to reset the counters and moves its next date
    }
    return RunBulkDeletion(m_pDB, deletion, __func__, piDeleted);
}

int CCacheTable::DeleteRecordByMD5(int64_t liHighMD5, int64_t liLowMD5) {
    if (!IsConnected(m_pDB, __func__)) {
        return 1;
    }
    // The statement is kept prepared: an engine update withdraws thousands of digests, and lookups wait meanwhile.
    char szSQL[kStatementSize] = {};
    str_snprintf(szSQL, sizeof szSQL, "delete from %s where %s=? and %s=?;", m_strTableName.c_str(),
                 ColumnName(kColumnFHMD).c_str(), ColumnName(kColumnFLMD).c_str());
    if (m_stDeleteByMD5.strSQL != szSQL) {
        m_stDeleteByMD5.Finalize();
        m_stDeleteByMD5.strSQL = szSQL;
    }
    CStatement deletion(m_pDB, m_stDeleteByMD5);
    if (!IsPrepared(deletion, __func__)) {
        return 0;
    }
    deletion.Bind(1, liHighMD5);
    deletion.Bind(2, liLowMD5);
    (void)deletion.Step(); // the next line gives its result
    const int iStep = deletion.RetryWhileBusy(1);
    if (!IsDoneOrBusy(iStep)) {
        LogFailedStep(deletion, __func__);
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
    if (!IsConnected(m_pDB, __func__)) {
        return 1;
    }
    if (setEngineIds.empty()) {
        return 1;
    }
    const char *pszVerdict = ColumnName(kColumnFTV).c_str();
    char szSQL[kStatementSize] = {};
    // Deleting by the verdicts that the inner query finds meets the same rows, since equal verdicts have one engine.
    // "&" and ">>" have one precedence in SQLite and group from the left: bits 32-47, the engine code.
    str_snprintf(szSQL, sizeof szSQL,
                 "delete from %s where %s in (select %s from %s where ((( %s & 0xffff00000000 >> 32) in %s)));",
                 m_strTableName.c_str(), pszVerdict, pszVerdict, m_strTableName.c_str(), pszVerdict,
                 EngineSetToStr(setEngineIds).c_str());
    CStatement deletion(m_pDB, szSQL);
    if (!IsPrepared(deletion, __func__)) {
        return 0;
    }
    TARN_LOG_DEBUG("[%s]sql: %s", szSQL);
    (void)deletion.Step(); // the next line gives its result
    const int iStep = deletion.RetryWhileBusy(1, false);
    if (!IsDoneOrBusy(iStep)) {
        LogFailedPreparation(deletion, __func__); // also for a failed step: log readers look for this text
    }
    return iStep == SQLITE_DONE ? 1 : 0;
}

int CCacheTable::DeleteRecordsByEngine(uint16_t usEngine) {
    if (!IsConnected(m_pDB, __func__)) {
        return 1;
    }
    char szSQL[kStatementSize] = {};
    str_snprintf(szSQL, sizeof szSQL, "delete from %s where (%s >> 32 & 0xffff) = %u;", m_strTableName.c_str(),
                 ColumnName(kColumnFTV).c_str(), static_cast<unsigned int>(usEngine));
    CStatement deletion(m_pDB, szSQL);
    (void)deletion.Step(); // the next line gives its result
    const int iStep = deletion.RetryWhileBusy(1);
    if (iStep != SQLITE_DONE) {
        LogFailedStep(deletion, __func__);
    }
    return iStep == SQLITE_DONE ? 1 : 0;
}

int CCacheTable::QueryFilePathHashByMD5(int64_t liHighMD5, int64_t liLowMD5, std::vector<_CacheRecordEx *> &vecOut) {
    if (!IsConnected(m_pDB, __func__)) {
        return 1;
    }
    char szSQL[kStatementSize] = {};
    FormatMD5Query(szSQL, "*", liHighMD5, liLowMD5);
    CStatement query(m_pDB, szSQL);
    if (!IsPrepared(query, __func__)) {
        return 0;
    }
    int iStep = query.Step();
    if (iStep != SQLITE_ROW && iStep != SQLITE_DONE) {
        LogFailedStep(query, __func__);
    }
    for (; iStep == SQLITE_ROW; iStep = query.Step()) {
        // Over 4 KiB each, and as many as there are copies of one file: a lack of memory is not far-fetched.
        std::unique_ptr<_CacheRecordEx> pRecord(new (std::nothrow) _CacheRecordEx());
        if (pRecord == nullptr) {
            TARN_LOG_ERROR("[%s]new CacheRecord failed!");
            return 0;
        }
        ReadCacheRow(query, *pRecord);
        vecOut.push_back(pRecord.get());
        (void)pRecord.release(); // the caller's now
    }
    return iStep == SQLITE_DONE ? 1 : 0;
}
