#include "tables/cachetable.h"

#include "platform/nubbase.h"
#include "tables/cachetable_columns.h"
#include "util/log.h"

#include <algorithm>
#include <new>
#include <sqlite3.h>
#include <string_view>

namespace {

constexpr char kLogSource[] = "cachetable";
constexpr int kAnswerColumns = 5;

void ReadAnswer(const CStatement &query, _CacheRecord &record) {
    record.lFileAttrHash = query.Int(0);
    record.liTreatVirus = query.Int64(1);
    record.liHighMD5 = query.Int64(2);
    record.liLowMD5 = query.Int64(3);
    record.lResultState = query.Int(4);
}

} // namespace

void ReadCacheRow(const CStatement &query, _CacheRecord &record) {
    record.liFilePathHash = query.Int64(kColumnFPH);
    record.lFileAttrHash = query.Int(kColumnFAH);
    record.liTreatVirus = query.Int64(kColumnFTV);
    record.liHighMD5 = query.Int64(kColumnFHMD);
    record.liLowMD5 = query.Int64(kColumnFLMD);
    record.lQueryCounts = query.Int(kColumnQC);
    record.lTimeStamp = query.Int64(kColumnTS);
    record.lResultState = query.Int(kColumnRS);
    // A damaged database may hold more bytes than an index has.
    const std::string_view index = query.Blob(kColumnFFI).substr(0, kPathIndexLength);
    std::memset(record.szFilePathIndex, 0, sizeof record.szFilePathIndex);
    std::copy(index.begin(), index.end(), record.szFilePathIndex);
}

CCacheTable::CCacheTable(sqlite3 *pDB) : CTableBase(pDB) {
    RegisterSQLs();
}

CCacheTable::~CCacheTable() {
    // The base finalizes these three as well, but only after this body, and they go before the extra ones.
    FinalizeStatements();
    CCacheTable::OnRelease();
}

void CCacheTable::RegisterSQLs() {
    RegisterTexts("CT", {{"FPH", "integer(8)", "primary key"},
                         {"FAH", "integer(4)", "not null"},
                         {"FTV", "integer(8)", "not null"},
                         {"FHMD", "integer(8)", "not null"},
                         {"FLMD", "integer(8)", "not null"},
                         {"QC", "integer(4)", "not null"},
                         {"TS", "integer(8)", "not null"},
                         {"RS", "integer(4)", "not null"},
                         {"FFI", "varchar(6)", "not null"}});
    BuildSetQueryTime();
}

void CCacheTable::BuildSetQueryTime() {
    m_stSetQueryTime.strSQL = "update " + m_strTableName + " set QC = QC+1, TS = ? where FPH = ?;";
}

uint32_t CCacheTable::OnCreate() {
    if (m_pDB == nullptr) {
        TARN_LOG_ERROR("[%s]m_pDB is null.");
        return 1;
    }
    BuildSetQueryTime(); // once more: the table's name is public and may have been changed since
    if (const CStatement update(m_pDB, m_stSetQueryTime); update.Result() != SQLITE_OK) {
        TARN_LOG_ERROR("[%s]OnCreate failed with error msg = %s", update.ErrorText());
        return static_cast<uint32_t>(update.Result());
    }
    // Without this index every deletion by MD5 reads the whole table. A failure is logged by the callee; the table
    // works without the index, so it is no failure of the start.
    (void)__implExecDDL(m_pDB, MD5IndexText());
    return 0;
}

std::string CCacheTable::MD5IndexText() const {
    return "create index if not exists " + m_strTableName + "_MD5 on " + m_strTableName + "(" +
           ColumnName(kColumnFHMD) + "," + ColumnName(kColumnFLMD) + ");";
}

// Every statement has to go before the connection is closed: SQLite refuses to close one with statements left.
void CCacheTable::OnRelease() {
    m_stSetQueryTime.Finalize();
    m_stDeleteByMD5.Finalize();
    m_queryPool.Clear();
    m_codePool.Clear();
    m_answerPool.Clear();
}

uint32_t CCacheTable::InsertRecord(_CacheRecord *pRecord) {
    if (!CanRun(m_stInsert, pRecord)) {
        TARN_LOG_ERROR("[%s]m_pDB or m_stInsert.pStmt or pRecord is null.");
        return 1;
    }
    CStatement insertion(m_pDB, m_stInsert);
    insertion.Bind(kColumnFPH + 1, pRecord->liFilePathHash);
    insertion.Bind(kColumnFAH + 1, pRecord->lFileAttrHash);
    insertion.Bind(kColumnFTV + 1, pRecord->liTreatVirus);
    insertion.Bind(kColumnFHMD + 1, pRecord->liHighMD5);
    insertion.Bind(kColumnFLMD + 1, pRecord->liLowMD5);
    insertion.Bind(kColumnQC + 1, pRecord->lQueryCounts);
    insertion.Bind(kColumnTS + 1, pRecord->lTimeStamp);
    insertion.Bind(kColumnRS + 1, pRecord->lResultState);
    // As a blob, though the column says text: that is how the stored files have it.
    insertion.BindBlob(kColumnFFI + 1, pRecord->szFilePathIndex,
                       strnlen(pRecord->szFilePathIndex, sizeof pRecord->szFilePathIndex));
    return insertion.Run();
}

uint32_t CCacheTable::QueryRecord(_CacheRecord *pRecord) {
    if (!CanRun(m_stQuery, pRecord)) {
        TARN_LOG_ERROR("[%s]m_pDB or m_stQuery.pStmt or pRecord is null.");
        return 1;
    }
    // Readers run side by side and so never share m_stQuery; each borrows a statement of its own.
    CStatement query(m_pDB, m_queryPool, m_stQuery.strSQL.c_str());
    query.Bind(1, pRecord->liFilePathHash);
    if (const uint32_t ulResult = query.FetchRow(); ulResult != 0) {
        return ulResult;
    }
    ReadCacheRow(query, *pRecord);
    TARN_LOG_DEBUG("[%s]liFilePathHash:%lld, lFileAttrHash:%d, liTreatVirus:%lld, liHighMD5:%lld, liLowMD5:%lld, "
                   "lQueryCounts:%d, lTimeStamp:%lld.",
                   static_cast<long long>(pRecord->liFilePathHash), pRecord->lFileAttrHash,
                   static_cast<long long>(pRecord->liTreatVirus), static_cast<long long>(pRecord->liHighMD5),
                   static_cast<long long>(pRecord->liLowMD5), pRecord->lQueryCounts,
                   static_cast<long long>(pRecord->lTimeStamp));
    return 0;
}

uint32_t CCacheTable::QueryRecordAndCode(_CacheRecord *pRecord, IdentityCode *pCode, bool *pbHasCode, bool bAnswer) {
    if (!CanRun(m_stQuery, pRecord)) {
        TARN_LOG_ERROR("[%s]m_pDB or m_stQuery.pStmt or pRecord is null.");
        return 1;
    }
    // One statement for both tables: each would take and release the locks on the file.
    constexpr char kAll[] = "select CT.*, CIT.IC from CT left join CIT on CIT.FPH = CT.FPH where CT.FPH = ?;";
    constexpr char kAnswer[] = "select CT.FAH, CT.FTV, CT.FHMD, CT.FLMD, CT.RS, CIT.IC "
                               "from CT left join CIT on CIT.FPH = CT.FPH where CT.FPH = ?;";
    CStatement query(m_pDB, bAnswer ? m_answerPool : m_codePool, bAnswer ? kAnswer : kAll);
    query.Bind(1, pRecord->liFilePathHash);
    if (const uint32_t ulResult = query.FetchRow(); ulResult != 0) {
        return ulResult;
    }
    bAnswer ? ReadAnswer(query, *pRecord) : ReadCacheRow(query, *pRecord);
    // The code stands behind the columns of the cache table; none is NULL, which reads as no bytes.
    const std::string_view code = query.Blob(bAnswer ? kAnswerColumns : kColumnFFI + 1);
    *pbHasCode = code.size() == pCode->size();
    if (*pbHasCode) {
        std::copy(code.begin(), code.end(), pCode->begin());
    }
    return 0;
}

uint32_t CCacheTable::DeleteRecord(_CacheRecord *pRecord) {
    if (!CanRun(m_stDelete, pRecord)) {
        TARN_LOG_ERROR("[%s]m_pDB or m_stDelete.pStmt or pRecord is null.");
        return 1;
    }
    return DeleteByKey(pRecord->liFilePathHash);
}

void CCacheTable::AddRecordQueryCount(int64_t liFilePathHash, int64_t liTimeStamp) {
    (void)CountHit(liFilePathHash, liTimeStamp); // a hit that cannot be counted is not worth a report
}

uint32_t CCacheTable::CountHit(int64_t liFilePathHash, int64_t liTimeStamp) {
    if (m_pDB == nullptr || m_stSetQueryTime.pStmt == nullptr) {
        TARN_LOG_AS(ELogLevel::Error, "AddRecordQueryCount", "[%s]m_pDB or m_stSetQueryTime.pStmt is null.");
        return 1;
    }
    CStatement update(m_pDB, m_stSetQueryTime);
    update.BindUnchecked(1, liTimeStamp); // a lost time stamp binds NULL, which the column refuses
    update.Bind(2, liFilePathHash);
    return update.Run();
}

uint32_t CCacheTable::ResetAllRecordsQueryCount(int iValue) {
    if (m_pDB == nullptr) {
        TARN_LOG_ERROR("[%s]m_pDB is null.");
        return 1;
    }
    char szSQL[kStatementSize] = {};
    str_snprintf(szSQL, sizeof szSQL, "update %s set QC = %d;", m_strTableName.c_str(), iValue);
    CStatement reset(m_pDB, szSQL);
    const uint32_t ulResult = reset.Run();
    return ulResult == SQLITE_ROW ? 0 : ulResult;
}

uint32_t CCacheTable::QueryRecordsCount(int *piCounts) {
    if (m_pDB == nullptr || piCounts == nullptr) {
        TARN_LOG_ERROR("[%s]m_pDB or piCounts is null.");
        return 1;
    }
    return CountRows(piCounts);
}

void CCacheTable::FormatMD5Query(char (&szSQL)[kStatementSize], const char *pszWhat, int64_t liHighMD5,
                                 int64_t liLowMD5) const {
    str_snprintf(szSQL, sizeof szSQL, "select %s from %s where %s=%lld and %s=%lld;", pszWhat, m_strTableName.c_str(),
                 ColumnName(kColumnFHMD).c_str(), static_cast<long long>(liHighMD5), ColumnName(kColumnFLMD).c_str(),
                 static_cast<long long>(liLowMD5));
}

uint32_t CCacheTable::CountRecordsByMD5(int64_t liHighMD5, int64_t liLowMD5, int64_t *pliCount) {
    if (m_pDB == nullptr || pliCount == nullptr) {
        TARN_LOG_ERROR("[%s]m_pDB or pliCount is null.");
        return 1;
    }
    char szSQL[kStatementSize] = {};
    FormatMD5Query(szSQL, "count(*)", liHighMD5, liLowMD5);
    return QueryNumber(m_pDB, szSQL, pliCount);
}

uint32_t CCacheTable::QueryRecordsAfter(int64_t liFilePathHash, size_t nMost, std::vector<_CacheRecord> &vecOut) {
    vecOut.clear();
    if (m_pDB == nullptr) {
        TARN_LOG_ERROR("[%s]m_pDB is null.");
        return 1;
    }
    // A damaged table may hold a key that is no number: it would be read as 0, and the next page start anew from there.
    const char *const pszKey = ColumnName(kColumnFPH).c_str();
    char szSQL[kStatementSize] = {};
    str_snprintf(szSQL, sizeof szSQL, "select * from %s where %s%s? and typeof(%s)='integer' order by %s limit ?;",
                 m_strTableName.c_str(), pszKey, liFilePathHash == INT64_MIN ? ">=" : ">", pszKey, pszKey);
    CStatement query(m_pDB, szSQL);
    query.Bind(1, liFilePathHash);
    query.Bind(2, static_cast<int64_t>(std::min<size_t>(nMost, INT64_MAX))); // a negative limit would be none
    try {
        while (query.Step() == SQLITE_ROW) {
            ReadCacheRow(query, vecOut.emplace_back());
        }
    } catch (const std::bad_alloc &) { // as if SQLite itself had run out of it
        return SQLITE_NOMEM;
    }
    return query.Run();
}
