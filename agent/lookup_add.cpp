// Lookup, peek and add, on the callers' threads. Each takes the table lock (reading; for an addition writing), releases
// it, and only then the queue mutex.
#include "agent/dbagent.h"

#include "interface/tarncache.h"
#include "platform/tarncore.h"
#include "util/log.h"

#include <cstring>
#include <ctime>
#include <new>
#include <sqlite3.h>
#include <sys/stat.h>

namespace {

constexpr char kLogSource[] = "dbagent";
constexpr size_t kMaxQueuedAdds = 9999; // one more marks the queue as full and wakes the writer
constexpr size_t kMaxNotedHits = 19999; // likewise for the hit map

// The path hash fills the record's 64-bit field as two 32-bit words.
bool CalcPathHash(const char *file, int64_t &liFilePathHash) {
    uint32_t aulWords[2] = {};
    if (CalcFilePathCrc32(file, aulWords) == 0) {
        return false;
    }
    std::memcpy(&liFilePathHash, aulWords, sizeof liFilePathHash);
    return true;
}

bool CalcAttrHash(const char *file, int32_t &lFileAttrHash) {
    uint32_t ulHash = 0;
    if (CalcFileAttrCrc32(file, &ulHash) == 0) {
        return false;
    }
    lFileAttrHash = static_cast<int32_t>(ulHash);
    return true;
}

// Everything but the description, which the virus table writes.
void CopyVerdictOut(const _CacheRecord &record, char *md5_text, _SCAN_FILE_RESULT *out) {
    out->lEngineCode = VerdictEngineCode(record.liTreatVirus);
    const CacheMD5 md5 = {record.liHighMD5, record.liLowMD5};
    (void)MD5_BinResultConvert(&md5, md5_text);
    out->ulFlags = WithResultState(VerdictFlags(record.liTreatVirus), record.lResultState);
}

} // namespace

uint32_t CDataBaseAgent::CacheLookup(const char *file, char *md5_text, _SCAN_FILE_RESULT *out) {
    if (file == nullptr || md5_text == nullptr || out == nullptr) {
        TARN_LOG_ERROR("[%s][cache] arg pszFile or szFileMD5 or pSfr is null.");
        return TARN_E_INVALIDARG;
    }
    _CacheRecord record = {};
    if (!CalcPathHash(file, record.liFilePathHash)) {
        TARN_LOG_ERROR("[%s][cache] Calc Path Crc32 failed.");
        return TARN_E_FAIL;
    }
    int32_t lFileAttrHash = 0;
    if (!CalcAttrHash(file, lFileAttrHash)) {
        TARN_LOG_ERROR("[%s][cache] Calc Attr Crc32 failed.");
        return TARN_E_FAIL;
    }
    if (!QueryHit(file, record, lFileAttrHash, md5_text, out)) {
        return TARN_NOT_CACHED;
    }
    NoteHit(record.liFilePathHash);
    return TARN_OK;
}

bool CDataBaseAgent::QueryHit(const char *file, _CacheRecord &record, int32_t lFileAttrHash, char *md5_text,
                              _SCAN_FILE_RESULT *out) {
    constexpr char kFunction[] = "CacheLookup";
    const CReadLock lock(m_tableLock);
    if (m_pCacheTable->QueryRecord(&record) != 0 || record.lFileAttrHash != lFileAttrHash ||
        m_pVirusTable->GetVirusDescByIndex(VerdictVirusIndex(record.liTreatVirus), out->szVirusDesc,
                                           TARN_VIRUS_DESC_SIZE) == 0) {
        TARN_LOG_DEBUG_AS(kFunction, "[%s][cache] file:%s is not in cache.", file);
        return false;
    }
    CopyVerdictOut(record, md5_text, out);
    const uint32_t ulFlags = out->ulFlags;
    TARN_LOG_DEBUG_AS(kFunction, "[%s][cache] file:%s, md5str:%s, filetype:%u, flag:%u, filepathhash:%llu is in cache.",
                      file, md5_text, TARN_FILE_TYPE(ulFlags), ulFlags,
                      static_cast<unsigned long long>(record.liFilePathHash));
    m_ulHitCount.fetch_add(1, std::memory_order_relaxed);
    return true;
}

void CDataBaseAgent::NoteHit(int64_t liFilePathHash) {
    try {
        const CMutexLock lock(m_queueMutex);
        m_mapHitFront.emplace(liFilePathHash, time(nullptr)); // the first hit's time stays until the map is written
        if (m_mapHitFront.size() > kMaxNotedHits) {
            m_lFlags |= FLAG_HIT_MAP_FULL;
            m_queueCondition.Signal();
        }
    } catch (const std::bad_alloc &) {
        // A hit that cannot be noted makes the record look less used; the verdict stands.
    }
}

uint32_t CDataBaseAgent::CachePeek(const char *file, char *md5_text, _SCAN_FILE_RESULT *out, bool *pbCurrent) {
    if (file == nullptr || md5_text == nullptr || out == nullptr || pbCurrent == nullptr) {
        return TARN_E_INVALIDARG;
    }
    _CacheRecord record = {};
    if (!CalcPathHash(file, record.liFilePathHash)) {
        return TARN_E_FAIL;
    }
    // A file that is gone is an ordinary answer here, not an error to be logged.
    struct stat status = {};
    int32_t lFileAttrHash = 0;
    const bool bHasAttr = lstat(file, &status) == 0 && CalcAttrHash(file, lFileAttrHash);
    const CReadLock lock(m_tableLock);
    if (const uint32_t ulResult = m_pCacheTable->QueryRecord(&record); ulResult != SQLITE_OK) {
        return ulResult == SQLITE_DONE ? TARN_NOT_CACHED : TARN_E_FAIL;
    }
    if (m_pVirusTable->GetVirusDescByIndex(VerdictVirusIndex(record.liTreatVirus), out->szVirusDesc,
                                           TARN_VIRUS_DESC_SIZE) == 0) {
        return TARN_E_FAIL;
    }
    CopyVerdictOut(record, md5_text, out);
    *pbCurrent = bHasAttr && record.lFileAttrHash == lFileAttrHash;
    return TARN_OK;
}

uint32_t CDataBaseAgent::CacheAdd(const char *file, const char *md5_text, _SCAN_FILE_RESULT *in) {
    if (file == nullptr || md5_text == nullptr || in == nullptr) {
        TARN_LOG_ERROR("[%s][cache] arg pszFile or szFileMD5 or pSfr is null.");
        return TARN_E_INVALIDARG;
    }
    std::unique_ptr<_CacheRecord> pRecord(new (std::nothrow) _CacheRecord());
    if (pRecord == nullptr) {
        TARN_LOG_ERROR("[%s][cache] alloc cache record failed.");
        return TARN_E_OUTOFMEMORY;
    }
    if (const uint32_t ulResult = FillRecord(file, md5_text, in, *pRecord); ulResult != TARN_OK) {
        return ulResult;
    }
    // File type 0 asks for the record to be written at once.
    Enqueue(std::move(pRecord), TARN_FILE_TYPE(in->ulFlags) == 0);
    return TARN_OK;
}

uint32_t CDataBaseAgent::FillRecord(const char *file, const char *md5_text, const _SCAN_FILE_RESULT *in,
                                    _CacheRecord &record) {
    constexpr char kFunction[] = "CacheAdd";
    if (!CalcPathHash(file, record.liFilePathHash)) {
        TARN_LOG_AS(LOG_FAILURE, kFunction, "[%s][cache] Calc Path Crc32 failed.");
        return TARN_E_FAIL;
    }
    if (!CalcAttrHash(file, record.lFileAttrHash)) {
        TARN_LOG_AS(LOG_FAILURE, kFunction, "[%s][cache] Calc Attr Crc32 failed.");
        return TARN_E_FAIL;
    }
    if (CalcFilePathIndex(file, record.szFilePathIndex, kPathIndexLength) == 0) {
        TARN_LOG_AS(LOG_FAILURE, kFunction, "[%s][cache] Calc file path index failed.");
        return TARN_E_FAIL;
    }
    // The caller's field may be full without an end.
    const std::string strVirusDesc(in->szVirusDesc, strnlen(in->szVirusDesc, TARN_VIRUS_DESC_SIZE - 1));
    int iVirusIndex = 0;
    {
        const CWriteLock lock(m_tableLock); // the virus table may gain a row
        // An index beyond the record's 16 bits would come back as another description.
        if (m_pVirusTable->GetIndexByVirusDesc(strVirusDesc.c_str(), &iVirusIndex) == 0 || iVirusIndex > INT16_MAX) {
            TARN_LOG_AS(LOG_FAILURE, kFunction, "[%s][cache] get virus id from virus desc failed.");
            return TARN_E_FAIL;
        }
    }
    record.lTimeStamp = time(nullptr);
    const uint32_t ulFlags = in->ulFlags;
    record.liTreatVirus =
        PackVerdict(ulFlags, static_cast<int16_t>(in->lEngineCode), static_cast<int16_t>(iVirusIndex));
    record.lResultState = ResultStateOf(ulFlags);
    CacheMD5 md5 = {};
    (void)MD5_StrResultConvert(md5_text, &md5); // other text counts as 16 zero bytes
    record.liHighMD5 = md5.liHighMD5;
    record.liLowMD5 = md5.liLowMD5;
    return TARN_OK;
}

void CDataBaseAgent::Enqueue(std::unique_ptr<_CacheRecord> pRecord, bool bWriteNow) {
    const CMutexLock lock(m_queueMutex);
    m_vecAddFront.push_back(std::move(pRecord));
    if (m_vecAddFront.size() > kMaxQueuedAdds) {
        m_lFlags |= FLAG_ADD_QUEUE_FULL;
        m_queueCondition.Signal();
    } else if (bWriteNow) {
        m_queueCondition.Signal();
    }
}
