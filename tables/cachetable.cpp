#include "tables/cachetable.h"

#include "platform/nubbase.h"
#include "tables/cachetable_columns.h"
#include "tables/sqlite_support.h"
#include "util/log.h"

#include <algorithm>
#include <sqlite3.h>

namespace {

constexpr char kLogSource[] = "cachetable";

} // namespace

void ReadCacheRow(sqlite3_stmt *pStmt, _CacheRecord &record) {
    record.lFileAttrHash = sqlite3_column_int(pStmt, COLUMN_FAH);
    record.liTreatVirus = sqlite3_column_int64(pStmt, COLUMN_FTV);
    record.lQueryCounts = sqlite3_column_int(pStmt, COLUMN_QC);
    record.lTimeStamp = sqlite3_column_int64(pStmt, COLUMN_TS);
    record.lResultState = sqlite3_column_int(pStmt, COLUMN_RS);
    // A damaged database may hold more bytes than an index has.
    const void *pIndex = sqlite3_column_blob(pStmt, COLUMN_FFI);
    const size_t nBytes = static_cast<size_t>(sqlite3_column_bytes(pStmt, COLUMN_FFI));
    std::memset(record.szFilePathIndex, 0, sizeof record.szFilePathIndex);
    if (pIndex != nullptr) {
        std::memcpy(record.szFilePathIndex, pIndex, std::min<size_t>(nBytes, kPathIndexLength));
    }
}

CCacheTable::CCacheTable(sqlite3 *pDB) : CTableBase(pDB) {
    RegisterSQLs();
}

CCacheTable::~CCacheTable() {
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
}

uint32_t CCacheTable::OnCreate() {
    if (m_pDB == nullptr) {
        TARN_LOG_ERROR("[%s]m_pDB is null.");
        return 1;
    }
    m_stSetQueryTime.strSQL = "update " + m_strTableName + " set QC = QC+1, TS = ? where FPH = ?;";
    if (const int iResult = m_stSetQueryTime.Prepare(m_pDB); iResult != SQLITE_OK) {
        TARN_LOG_ERROR("[%s]OnCreate failed with error msg = %s", sqlite3_errmsg(m_pDB));
        return static_cast<uint32_t>(iResult);
    }
    // Without it every deletion by MD5 reads the whole table. A failure is logged there and costs speed alone.
    (void)__implExecDDL(m_pDB, "create index if not exists " + m_strTableName + "_MD5 on " + m_strTableName + "(" +
                                   ColumnName(COLUMN_FHMD) + "," + ColumnName(COLUMN_FLMD) + ");");
    return 0;
}

void CCacheTable::OnRelease() {
    m_stSetQueryTime.Finalize();
    m_stDeleteByMD5.Finalize();
    m_queryPool.Clear();
}

uint32_t CCacheTable::InsertRecord(_CacheRecord *pRecord) {
    sqlite3_stmt *const pStmt = m_stInsert.pStmt;
    if (m_pDB == nullptr || pStmt == nullptr || pRecord == nullptr) {
        TARN_LOG_ERROR("[%s]m_pDB or m_stInsert.pStmt or pRecord is null.");
        return 1;
    }
    const CStatementUse use(pStmt);
    const int nIndexBytes = static_cast<int>(strnlen(pRecord->szFilePathIndex, sizeof pRecord->szFilePathIndex));
    int iResult = sqlite3_bind_int64(pStmt, COLUMN_FPH + 1, pRecord->liFilePathHash);
    iResult |= sqlite3_bind_int(pStmt, COLUMN_FAH + 1, pRecord->lFileAttrHash);
    iResult |= sqlite3_bind_int64(pStmt, COLUMN_FTV + 1, pRecord->liTreatVirus);
    iResult |= sqlite3_bind_int64(pStmt, COLUMN_FHMD + 1, pRecord->liHighMD5);
    iResult |= sqlite3_bind_int64(pStmt, COLUMN_FLMD + 1, pRecord->liLowMD5);
    iResult |= sqlite3_bind_int(pStmt, COLUMN_QC + 1, pRecord->lQueryCounts);
    iResult |= sqlite3_bind_int64(pStmt, COLUMN_TS + 1, pRecord->lTimeStamp);
    iResult |= sqlite3_bind_int(pStmt, COLUMN_RS + 1, pRecord->lResultState);
    // SQLITE_STATIC: the record outlives the step, and the bindings are cleared behind it.
    iResult |= sqlite3_bind_blob(pStmt, COLUMN_FFI + 1, pRecord->szFilePathIndex, nIndexBytes, nullptr);
    return use.RunIfBound(iResult);
}

uint32_t CCacheTable::QueryRecord(_CacheRecord *pRecord) {
    if (m_pDB == nullptr || m_stQuery.pStmt == nullptr || pRecord == nullptr) {
        TARN_LOG_ERROR("[%s]m_pDB or m_stQuery.pStmt or pRecord is null.");
        return 1;
    }
    const CStatementPool::CLoan query(m_queryPool, m_pDB, m_stQuery.strSQL);
    int iResult = query.Result();
    if (iResult == SQLITE_OK) {
        iResult = sqlite3_bind_int64(query.Handle(), 1, pRecord->liFilePathHash);
    }
    if (iResult != SQLITE_OK) {
        return static_cast<uint32_t>(iResult);
    }
    iResult = sqlite3_step(query.Handle());
    if (iResult != SQLITE_ROW) {
        return static_cast<uint32_t>(iResult);
    }
    ReadCacheRow(query.Handle(), *pRecord);
    pRecord->liHighMD5 = sqlite3_column_int64(query.Handle(), COLUMN_FHMD);
    pRecord->liLowMD5 = sqlite3_column_int64(query.Handle(), COLUMN_FLMD);
    TARN_LOG_DEBUG("[%s]liFilePathHash:%lld, lFileAttrHash:%d, liTreatVirus:%lld, liHighMD5:%lld, liLowMD5:%lld, "
                   "lQueryCounts:%d, lTimeStamp:%lld.",
                   static_cast<long long>(pRecord->liFilePathHash), pRecord->lFileAttrHash,
                   static_cast<long long>(pRecord->liTreatVirus), static_cast<long long>(pRecord->liHighMD5),
                   static_cast<long long>(pRecord->liLowMD5), pRecord->lQueryCounts,
                   static_cast<long long>(pRecord->lTimeStamp));
    return 0;
}

uint32_t CCacheTable::DeleteRecord(_CacheRecord *pRecord) {
    sqlite3_stmt *const pStmt = m_stDelete.pStmt;
    if (m_pDB == nullptr || pStmt == nullptr || pRecord == nullptr) {
        TARN_LOG_ERROR("[%s]m_pDB or m_stDelete.pStmt or pRecord is null.");
        return 1;
    }
    const CStatementUse use(pStmt);
    return use.RunIfBound(sqlite3_bind_int64(pStmt, 1, pRecord->liFilePathHash));
}

void CCacheTable::AddRecordQueryCount(int64_t liFilePathHash, int64_t liTimeStamp) {
    sqlite3_stmt *const pStmt = m_stSetQueryTime.pStmt;
    if (m_pDB == nullptr || pStmt == nullptr) {
        TARN_LOG_ERROR("[%s]m_pDB or m_stSetQueryTime.pStmt is null.");
        return;
    }
    const CStatementUse use(pStmt);
    (void)sqlite3_bind_int64(pStmt, 1, liTimeStamp); // a lost time stamp binds NULL, which the column refuses
    if (sqlite3_bind_int64(pStmt, 2, liFilePathHash) == SQLITE_OK) {
        (void)sqlite3_step(pStmt); // a hit that cannot be counted is not worth a report
    }
}

uint32_t CCacheTable::QueryRecordsCount(int *piCounts) {
    if (m_pDB == nullptr || piCounts == nullptr) {
        TARN_LOG_ERROR("[%s]m_pDB or piCounts is null.");
        return 1;
    }
    return static_cast<uint32_t>(CountRows(piCounts));
}

uint32_t CCacheTable::ResetAllRecordsQueryCount(int iValue) {
    if (m_pDB == nullptr) {
        TARN_LOG_ERROR("[%s]m_pDB is null.");
        return 1;
    }
    char szSQL[kStatementSize] = {};
    str_snprintf(szSQL, sizeof szSQL, "update %s set QC = %d;", m_strTableName.c_str(), iValue);
    _SQLStmt stReset(szSQL);
    if (const int iResult = stReset.Prepare(m_pDB); iResult != SQLITE_OK) {
        return static_cast<uint32_t>(iResult);
    }
    const int iStep = sqlite3_step(stReset.pStmt);
    return iStep == SQLITE_ROW || iStep == SQLITE_DONE ? 0 : static_cast<uint32_t>(iStep);
}

int CCacheTable::DeleteAllRecords() {
    if (m_pDB == nullptr) {
        TARN_LOG_ERROR("[%s]m_pDB is null.");
        return 1;
    }
    char szSQL[kStatementSize] = {};
    str_snprintf(szSQL, sizeof szSQL, "delete from %s;", m_strTableName.c_str());
    _SQLStmt stDeleteAll(szSQL);
    if (stDeleteAll.Prepare(m_pDB) != SQLITE_OK) {
        TARN_LOG_ERROR("[%s]sqlite prepare v2 failed with error code = %s", sqlite3_errmsg(m_pDB));
        return 0;
    }
    const int iStep = sqlite3_step(stDeleteAll.pStmt);
    if (iStep != SQLITE_ROW && iStep != SQLITE_DONE) {
        TARN_LOG_ERROR("[%s]sqlite step failed with error code = %s", sqlite3_errmsg(m_pDB));
    }
    return iStep == SQLITE_DONE ? 1 : 0;
}

uint32_t CCacheTable::CountRecordsByMD5(int64_t h, int64_t l, int64_t *p) {
    std::vector<_CacheRecordEx *> v;
    if (QueryFilePathHashByMD5(h, l, v) == 0)
        return 1;
    *p = static_cast<int64_t>(v.size());
    for (auto *q : v)
        delete q;
    return 0;
}
uint32_t CCacheTable::QueryRecordsAfter(int64_t a, size_t n, std::vector<_CacheRecord> &v) {
    _SQLStmt st("select * from CT where FPH > ? order by FPH limit ?;");
    if (st.Prepare(m_pDB) != 0)
        return 1;
    sqlite3_bind_int64(st.pStmt, 1, a);
    sqlite3_bind_int64(st.pStmt, 2, static_cast<int64_t>(n));
    int r;
    while ((r = sqlite3_step(st.pStmt)) == SQLITE_ROW) {
        _CacheRecord c = {};
        c.liFilePathHash = sqlite3_column_int64(st.pStmt, 0);
        ReadCacheRow(st.pStmt, c);
        c.liHighMD5 = sqlite3_column_int64(st.pStmt, COLUMN_FHMD);
        c.liLowMD5 = sqlite3_column_int64(st.pStmt, COLUMN_FLMD);
        v.push_back(c);
    }
    return r == SQLITE_DONE ? 0 : 1;
}
