// Direct deletions, on the caller's thread under the table lock for writing. Records still queued are not affected.
// With the key "protect" each has one deadline for locks of other processes, from before it takes the table lock.
#include "agent/dbagent.h"

#include "agent/stored_record.h"
#include "util/file_identity.h"
#include "util/log.h"

namespace {

constexpr char kLogSource[] = "dbagent";

} // namespace

uint32_t CDataBaseAgent::DeleteRecordByFileHash(const char *md5_text) {
    if (md5_text == nullptr) {
        TARN_LOG_ERROR("[%s]agr szFileMD5 is null.");
        return TARN_E_FAIL;
    }
    const CacheMD5 md5 = MD5Of(md5_text);
    const CBusyDeadline deadline(m_config.bProtect);
    const CWriteLock lock(m_connection.m_tableLock);
    if (!MayServe() || m_pCacheTable->DeleteRecordByMD5(md5.liHighMD5, md5.liLowMD5) == 0) {
        TARN_LOG_ERROR("[%s][cache] delete record by md5 failed.");
        return TARN_E_FAIL;
    }
    return TARN_OK;
}

uint32_t CDataBaseAgent::DeleteAllRecords() {
    const CBusyDeadline deadline(m_config.bProtect);
    const CWriteLock lock(m_connection.m_tableLock);
    if (!MayServe() || m_pCacheTable->DeleteAllRecords() == 0) {
        TARN_LOG_ERROR("[%s][cache] delete all record failed.");
        return TARN_E_FAIL;
    }
    return TARN_OK;
}

uint32_t CDataBaseAgent::DeleteByEngine(int16_t sEngine) {
    const CBusyDeadline deadline(m_config.bProtect);
    const CWriteLock lock(m_connection.m_tableLock);
    if (!MayServe() || m_pCacheTable->DeleteRecordsByEngine(static_cast<uint16_t>(sEngine)) == 0) {
        TARN_LOG_ERROR("[%s][cache] delete records of engine %d failed.", sEngine);
        return TARN_E_FAIL;
    }
    return TARN_OK;
}

uint32_t CDataBaseAgent::DeleteByPath(const char *file) {
    _CacheRecord record = {};
    if (!CalcPathHash(file, record.liFilePathHash)) {
        return TARN_E_FAIL;
    }
    // A transaction of its own, for its second try on a busy database.
    const CBusyDeadline deadline(m_config.bProtect);
    const CWriteLock lock(m_connection.m_tableLock);
    if (BeginTransactoion(TransactionType::Immediate) == TARN_OK && m_pCacheTable->DeleteRecord(&record) == 0 &&
        CommitTransaction() == TARN_OK) {
        return TARN_OK;
    }
    (void)RollbackTransaction(); // nothing to roll back when it did not begin
    TARN_LOG_ERROR("[%s][cache] delete record of %s failed.", file);
    return TARN_E_FAIL;
}
