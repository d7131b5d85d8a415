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

bool CalcAttrHash(const char *file, int32_t &lAttrHash) {
    uint32_t ulHash = 0;
    if (CalcFileAttrCrc32(file, &ulHash) == 0) {
        return false;
    }
    lAttrHash = static_cast<int32_t>(ulHash);
    return true;
}

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
    int32_t lAttrHash = 0;
    if (!CalcAttrHash(file, lAttrHash)) {
        TARN_LOG_ERROR("[%s][cache] Calc Attr Crc32 failed.");
        return TARN_E_FAIL;
    }
    return AnswerLookup(file, liPathHash, lAttrHash, md5_text, out);
}

uint32_t CDataBaseAgent::CacheLookupStat(const char *file, const struct stat &status, char *md5_text,
                                         _SCAN_FILE_RESULT *out) {
    int64_t liPathHash = 0;
    if (!CalcPathHash(file, liPathHash)) {
        TARN_LOG_AS(ELogLevel::Error, kLookup, "[%s][cache] Calc Path Crc32 failed.");
        return TARN_E_FAIL;
    }
    return AnswerLookup(file, liPathHash, AttrHashOf(status), md5_text, out);
}

uint32_t CDataBaseAgent::AnswerLookup(const char *file, int64_t liPathHash, int32_t lAttrHash, char *md5_text,
                                      _SCAN_FILE_RESULT *out) {
    _CacheRecord record = {};
    record.liFilePathHash = liPathHash;
    if (!QueryHit(file, record, lAttrHash, md5_text, out)) {
        m_ulMissCount.fetch_add(1, std::memory_order_relaxed);
        return TARN_NOT_CACHED;
    }
    if (!IsReader()) {
        NoteHit(liPathHash);
    }
    return TARN_OK;
}

bool CDataBaseAgent::QueryHit(const char *file, _CacheRecord &record, int32_t lAttrHash, char *md5_text,
                              _SCAN_FILE_RESULT *out) {
    const CReadLock lock(m_connection.m_tableLock);
    if (m_pCacheTable->QueryRecord(&record) != 0 || record.lFileAttrHash != lAttrHash ||
        m_pVirusTable->GetVirusDescByIndex(VerdictVirusIndex(record.liTreatVirus), out->szVirusDesc,
                                           TARN_VIRUS_DESC_SIZE) == 0) {
        TARN_LOG_DEBUG_AS(kLookup, "[%s][cache] file:%s is not in cache.", file);
        return false;
    }
    CopyVerdictOut(record, md5_text, out);
    const uint32_t ulFlags = out->ulFlags;
    TARN_LOG_DEBUG_AS(kLookup, "[%s][cache] file:%s, md5str:%s, filetype:%u, flag:%u, filepathhash:%llu is in cache.",
                      file, md5_text, TARN_FILE_TYPE(ulFlags), ulFlags,
                      static_cast<unsigned long long>(record.liFilePathHash));
    if (!IsReader()) {
        m_ulHitCount.fetch_add(1, std::memory_order_relaxed);
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
    if (!CalcAttrHash(file, pRecord->lFileAttrHash)) {
        TARN_LOG_ERROR("[%s][cache] Calc Attr Crc32 failed.");
        return TARN_E_FAIL;
    }
    return QueueRecord(file, std::move(pRecord), md5_text, in);
}

uint32_t CDataBaseAgent::CacheAddStat(const char *file, const struct stat &status, const char *md5_text,
                                      const _SCAN_FILE_RESULT *in) {
    uint32_t ulResult = TARN_OK;
    std::unique_ptr<_CacheRecord> pRecord = NewRecord(file, ulResult);
    if (pRecord == nullptr) {
        return ulResult;
    }
    pRecord->lFileAttrHash = AttrHashOf(status);
    return QueueRecord(file, std::move(pRecord), md5_text, in);
}

uint32_t CDataBaseAgent::FindVirusIndex(const _SCAN_FILE_RESULT *in, int16_t &sVirusIndex) {
    // The caller's field may be full without an end.
    const std::string strVirusDesc(in->szVirusDesc, strnlen(in->szVirusDesc, TARN_VIRUS_DESC_SIZE - 1));
    int iVirusIndex = 0;
    const CWriteLock lock(m_connection.m_tableLock); // the virus table may gain a row
    // An index beyond the record's 16 bits would come back as another description.
    if (m_pVirusTable->GetIndexByVirusDesc(strVirusDesc.c_str(), &iVirusIndex) == 0 || iVirusIndex > INT16_MAX) {
        TARN_LOG_AS(ELogLevel::Error, kAdd, "[%s][cache] get virus id from virus desc failed.");
        return TARN_E_FAIL;
    }
    sVirusIndex = static_cast<int16_t>(iVirusIndex);
    return TARN_OK;
}

uint32_t CDataBaseAgent::QueueRecord(const char *file, std::unique_ptr<_CacheRecord> pRecord, const char *md5_text,
                                     const _SCAN_FILE_RESULT *in) {
    if (CalcFilePathIndex(file, pRecord->szFilePathIndex, kPathIndexLength) == 0) {
        TARN_LOG_AS(ELogLevel::Error, kAdd, "[%s][cache] Calc file path index failed.");
        return TARN_E_FAIL;
    }
    int16_t sVirusIndex = 0;
    if (const uint32_t ulResult = FindVirusIndex(in, sVirusIndex); ulResult != TARN_OK) {
        return ulResult;
    }
    const uint32_t ulFlags = in->ulFlags;
    const CacheMD5 md5 = MD5Of(md5_text);
    pRecord->lTimeStamp = time(nullptr);
    pRecord->liTreatVirus = PackVerdict(ulFlags, static_cast<int16_t>(in->lEngineCode), sVirusIndex);
    pRecord->lResultState = ResultStateOf(ulFlags);
    pRecord->liHighMD5 = md5.liHighMD5;
    pRecord->liLowMD5 = md5.liLowMD5;
    m_queue.Add(std::move(pRecord), TARN_FILE_TYPE(ulFlags) == 0); // file type 0 asks for a write at once
    return TARN_OK;
}
