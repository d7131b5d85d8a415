// Lookup and add, on the callers' threads. Each takes the table lock (reading; for an addition writing), releases it,
// and then takes the queue mutex.
#include "agent/dbagent.h"

#include "agent/stored_record.h"
#include "platform/tarncore.h"
#include "util/file_identity.h"
#include "util/log.h"

#include <cstring>
#include <ctime>
#include <new>

namespace {

constexpr char kLogSource[] = "dbagent";
constexpr char kLookup[] = "CacheLookup"; // the names under which both forms log
constexpr char kAdd[] = "CacheAdd";
constexpr uint64_t kForeverMs = 1000ULL * UINT32_MAX; // 136 years

// An empty record for the path; null with the reason logged and in ulResult.
std::unique_ptr<_CacheRecord> NewRecord(const char *file, uint32_t &ulResult) {
    std::unique_ptr<_CacheRecord> pRecord(new (std::nothrow) _CacheRecord());
    if (pRecord == nullptr) {
        TARN_LOG_AS(ELogLevel::Error, kAdd, "[%s][cache] alloc cache record failed.");
        ulResult = TARN_E_OUTOFMEMORY;
    } else if (!CalcPathHash(file, pRecord->liFilePathHash)) {
        TARN_LOG_AS(ELogLevel::Error, kAdd, "[%s][cache] Calc Path Crc32 failed.");
        ulResult = TARN_E_FAIL;
        pRecord = nullptr;
    }
    return pRecord;
}

} // namespace

uint32_t CDataBaseAgent::CacheLookup(const char *file, char *md5_text, _SCAN_FILE_RESULT *out) {
    if (file == nullptr || md5_text == nullptr || out == nullptr) {
        TARN_LOG_ERROR("[%s][cache] arg pszFile or szFileMD5 or pSfr is null.");
        return TARN_E_INVALIDARG;
    }
    int64_t liPathHash = 0;
    if (!CalcPathHash(file, liPathHash)) {
        TARN_LOG_ERROR("[%s][cache] Calc Path Crc32 failed.");
        return TARN_E_FAIL;
    }
    struct stat status = {};
    if (!TakeStatus(file, status)) {
        TARN_LOG_ERROR("[%s][cache] Calc Attr Crc32 failed.");
        return TARN_E_FAIL;
    }
    return AnswerLookup(file, liPathHash, status, md5_text, out);
}

uint32_t CDataBaseAgent::CacheLookupStat(const char *file, const struct stat &status, char *md5_text,
                                         _SCAN_FILE_RESULT *out) {
    int64_t liPathHash = 0;
    if (!CalcPathHash(file, liPathHash)) {
        TARN_LOG_AS(ELogLevel::Error, kLookup, "[%s][cache] Calc Path Crc32 failed.");
        return TARN_E_FAIL;
    }
    return AnswerLookup(file, liPathHash, status, md5_text, out);
}

uint32_t CDataBaseAgent::AnswerLookup(const char *file, int64_t liPathHash, const struct stat &status, char *md5_text,
                                      _SCAN_FILE_RESULT *out) {
    uint64_t ullFileSystem = 0; // asked before the lock is taken
    const bool bTold =
        m_pProtection == nullptr || m_pProtection->m_identity.FindFileSystem(file, status, ullFileSystem);
    const _FileIdentity identity = {file, ullFileSystem, status};
    _CacheRecord record = {};
    record.liFilePathHash = liPathHash;
    if (!bTold || !MayAnswer() || !QueryHit(identity, record, md5_text, out)) {
        TARN_LOG_DEBUG_AS(kLookup, "[%s][cache] file:%s is not in cache.", file);
        m_counters.ulMisses.fetch_add(IsReader() ? 0 : 1, std::memory_order_relaxed);
        return TARN_NOT_CACHED;
    }
    if (!IsReader()) {
        NoteHit(liPathHash);
    }
    return TARN_OK;
}

bool CDataBaseAgent::MayAnswer() {
    const bool bInPlace = m_pProtection == nullptr || !IsReader() || m_health.IsInPlace(DatabasePath(m_config));
    if (bInPlace && MayServe()) {
        return true;
    }
    if (m_eMode != EMode::Full && !m_health.m_bSaid.exchange(true)) { // the writer says more when it heals it
        TARN_LOG_AS(ELogLevel::Error, kLookup,
                    "[%s][cache] the database is damaged or gone; nothing is answered until the next start");
    }
    return false;
}

uint32_t CDataBaseAgent::ReadRecord(_CacheRecord &record, bool &bHasCode) {
    bHasCode = m_pProtection == nullptr; // where no codes are kept, none is missed
    return m_pProtection == nullptr ? m_pCacheTable->QueryRecord(&record)
                                    : m_pCacheTable->QueryRecordAndCode(&record, &record.code, &bHasCode);
}

bool CDataBaseAgent::QueryHit(const _FileIdentity &file, _CacheRecord &record, char *md5_text, _SCAN_FILE_RESULT *out) {
    bool bHasCode = m_pProtection == nullptr; // where no codes are kept, none is missed
    char szDescription[TARN_VIRUS_DESC_SIZE] = {};
    std::memcpy(szDescription, out->szVirusDesc, sizeof szDescription); // bytes behind the text stay the caller's
    const CBusyDeadline deadline(IsReader());
    const CReadLockWithin lock(m_connection.m_tableLock, m_config.bProtect ? kBusyTimeoutMs : kForeverMs);
    if (!lock.IsHeld() ||
        (m_pProtection == nullptr ? m_pCacheTable->QueryRecord(&record)
                                  : m_pCacheTable->QueryRecordAndCode(&record, &record.code, &bHasCode, true)) != 0 ||
        !bHasCode || record.lFileAttrHash != AttrHashOf(file.status) ||
        m_pVirusTable->GetVirusDescByIndex(VerdictVirusIndex(record.liTreatVirus), szDescription,
                                           sizeof szDescription) == 0 ||
        (m_pProtection != nullptr && !m_pProtection->Allows(file, record, szDescription))) {
        return false;
    }
    std::memcpy(out->szVirusDesc, szDescription, sizeof szDescription);
    CopyVerdictOut(record, md5_text, out);
    const uint32_t ulFlags = out->ulFlags;
    TARN_LOG_DEBUG_AS(kLookup, "[%s][cache] file:%s, md5str:%s, filetype:%u, flag:%u, filepathhash:%llu is in cache.",
                      file.pszPath, md5_text, TARN_FILE_TYPE(ulFlags), ulFlags,
                      static_cast<unsigned long long>(record.liFilePathHash));
    if (!IsReader()) {
        m_counters.ulHits.fetch_add(1, std::memory_order_relaxed);
    }
    return true;
}

void CDataBaseAgent::NoteHit(int64_t liPathHash) {
    try {
        m_queue.NoteHit(liPathHash);
    } catch (const std::bad_alloc &) {
        // A hit that cannot be noted makes the record look less used; the verdict stands.
    }
}

uint32_t CDataBaseAgent::CacheAdd(const char *file, const char *md5_text, _SCAN_FILE_RESULT *in) {
    if (file == nullptr || md5_text == nullptr || in == nullptr) {
        TARN_LOG_ERROR("[%s][cache] arg pszFile or szFileMD5 or pSfr is null.");
        return TARN_E_INVALIDARG;
    }
    uint32_t ulResult = TARN_OK;
    std::unique_ptr<_CacheRecord> pRecord = NewRecord(file, ulResult);
    if (pRecord == nullptr) {
        return ulResult;
    }
    struct stat status = {};
    if (!TakeStatus(file, status)) {
        TARN_LOG_ERROR("[%s][cache] Calc Attr Crc32 failed.");
        return TARN_E_FAIL;
    }
    return QueueRecord(file, status, std::move(pRecord), md5_text, in);
}

uint32_t CDataBaseAgent::CacheAddStat(const char *file, const struct stat &status, const char *md5_text,
                                      const _SCAN_FILE_RESULT *in) {
    uint32_t ulResult = TARN_OK;
    std::unique_ptr<_CacheRecord> pRecord = NewRecord(file, ulResult);
    if (pRecord == nullptr) {
        return ulResult;
    }
    return QueueRecord(file, status, std::move(pRecord), md5_text, in);
}

uint32_t CDataBaseAgent::FindVirusIndex(const std::string &strVirusDesc, int16_t &sVirusIndex, uint32_t &ulDatabase) {
    int iVirusIndex = 0;
    const CBusyDeadline deadline(
        m_config.bProtect); // from before the lock, so that those who queue for it do not add up
    const CWriteLock lock(m_connection.m_tableLock); // the virus table may gain a row
    // An index beyond the record's 16 bits would come back as another description.
    if (!MayServe() || m_pVirusTable->GetIndexByVirusDesc(strVirusDesc.c_str(), &iVirusIndex) == 0 ||
        iVirusIndex > INT16_MAX) {
        TARN_LOG_AS(ELogLevel::Error, kAdd, "[%s][cache] get virus id from virus desc failed.");
        return TARN_E_FAIL;
    }
    sVirusIndex = static_cast<int16_t>(iVirusIndex);
    ulDatabase = m_health.Generation();
    return TARN_OK;
}

uint32_t CDataBaseAgent::QueueRecord(const char *file, const struct stat &status, std::unique_ptr<_CacheRecord> pRecord,
                                     const char *md5_text, const _SCAN_FILE_RESULT *in) {
    pRecord->lFileAttrHash = AttrHashOf(status);
    if (CalcFilePathIndex(file, pRecord->szFilePathIndex, kPathIndexLength) == 0) {
        TARN_LOG_AS(ELogLevel::Error, kAdd, "[%s][cache] Calc file path index failed.");
        return TARN_E_FAIL;
    }
    // The caller's field may be full without an end.
    const std::string strVirusDesc(in->szVirusDesc, strnlen(in->szVirusDesc, TARN_VIRUS_DESC_SIZE - 1));
    int16_t sVirusIndex = 0;
    if (const uint32_t ulResult = FindVirusIndex(strVirusDesc, sVirusIndex, pRecord->ulDatabase); ulResult != TARN_OK) {
        return ulResult;
    }
    const uint32_t ulFlags = in->ulFlags;
    const CacheMD5 md5 = MD5Of(md5_text);
    pRecord->lTimeStamp = time(nullptr);
    pRecord->liTreatVirus = PackVerdict(ulFlags, static_cast<int16_t>(in->lEngineCode), sVirusIndex);
    pRecord->lResultState = ResultStateOf(ulFlags);
    pRecord->liHighMD5 = md5.liHighMD5;
    pRecord->liLowMD5 = md5.liLowMD5;
    if (m_pProtection != nullptr) {
        uint64_t ullFileSystem = 0;
        if (!m_pProtection->m_identity.FindFileSystem(file, status, ullFileSystem)) {
            TARN_LOG_AS(ELogLevel::Error, kAdd, "[%s][cache] the file system of %s cannot be told.", file);
            return TARN_E_FAIL;
        }
        pRecord->code = m_pProtection->m_identity.CodeOf({file, ullFileSystem, status}, *pRecord, strVirusDesc.c_str());
    }
    if (!m_queue.Add(std::move(pRecord), TARN_FILE_TYPE(ulFlags) == 0)) { // file type 0 asks for a write at once
        if (m_queue.IsRefusalNews()) {
            TARN_LOG_AS(ELogLevel::Error, kAdd, "[%s][cache] not queued: %llu records wait and are not written.",
                        static_cast<unsigned long long>(m_queue.Waiting()));
        }
        return TARN_E_FAIL;
    }
    return TARN_OK;
}
