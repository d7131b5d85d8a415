#include "tables/versiontable.h"

#include "util/log.h"

namespace {

constexpr char kLogSource[] = "versiontable";

} // namespace

CVersionTable::CVersionTable(sqlite3 *pDB) : CTableBase(pDB) {
    RegisterSQLs();
}

CVersionTable::~CVersionTable() = default;

void CVersionTable::RegisterSQLs() {
    RegisterTexts(
        "VST",
        {{"FV", "integer(4)", "primary key"}, {"VN", "integer(4)", "not null"}, {"LDT", "integer(8)", "not null"}});
}

uint32_t CVersionTable::InsertRecord(_VersionRecord *pRecord) {
    if (!CanRun(m_stInsert, pRecord)) {
        TARN_LOG_ERROR("[%s]arg m_pDB is null, or m_stInsert.pStmt is null, or pRecord is null.");
        return 1;
    }
    CStatement insertion(m_pDB, m_stInsert);
    // Only the last bind decides: an unbound column is NULL, which the step then refuses.
    insertion.BindUnchecked(1, pRecord->iVersionKey);
    insertion.BindUnchecked(2, pRecord->iVersionNo);
    insertion.Bind(3, pRecord->liCreateTime);
    return insertion.Run();
}

// Asked once in a start, so a statement of its own is cheap enough.
uint32_t CVersionTable::QueryRecord(_VersionRecord *pRecord) {
    if (!CanRun(m_stQuery, pRecord)) {
        TARN_LOG_ERROR("[%s]arg m_pDB is null, or m_stQuery.pStmt is null, or pRecord is null.");
        return 1;
    }
    CStatement query(m_pDB, m_stQuery.strSQL.c_str());
    query.Bind(1, pRecord->iVersionKey);
    const uint32_t ulResult = query.FetchRow();
    if (ulResult == 0) {
        pRecord->iVersionNo = query.Int(1);
        pRecord->liCreateTime = query.Int64(2);
    }
    return ulResult;
}

uint32_t CVersionTable::DeleteRecord(_VersionRecord *pRecord) {
    if (!CanRun(m_stDelete, pRecord)) {
        TARN_LOG_ERROR("[%s]arg m_pDB is null, or m_stDelete.pStmt is null, or pRecord is null.");
        return 1;
    }
    return DeleteByKey(pRecord->iVersionKey);
}

uint32_t CVersionTable::QueryRecordCounts(int &iCounts) {
    if (m_pDB == nullptr) {
        TARN_LOG_ERROR("[%s]arg m_pDB is null.");
        return 1;
    }
    return CountRows(&iCounts);
}
