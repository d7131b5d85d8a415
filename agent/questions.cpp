// Questions for people and tools, on the callers' threads: what is stored, what the file is now, whether all is sound.
// Each question of the tables runs under the table lock for reading. No hit is counted and nothing is changed.
#include "agent/dbagent.h"

#include "agent/stored_record.h"
#include "support/fork_mark.h"
#include "util/file_identity.h"
#include "util/log.h"

#include <cerrno>
#include <cstring>
#include <sqlite3.h>

namespace {

constexpr char kLogSource[] = "dbagent";
constexpr size_t kRecordsAtOnce = 500; // read under one hold of the lock

void DescribeFile(const struct stat &status, _LOCAL_CACHE_EXPLANATION &explanation) {
    explanation.lAttrHash = AttrHashOf(status);
    explanation.liFileSize = status.st_size;
    explanation.liChangeTime = status.st_ctim.tv_sec;
    explanation.ulChangeTimeNs = static_cast<uint32_t>(status.st_ctim.tv_nsec);
}

} // namespace

// A file that is gone is an ordinary answer here, not an error to be logged.
int CDataBaseAgent::IdentifyFile(const char *file, struct stat &status, uint64_t &ullFileSystem) {
    if (lstat(file, &status) != 0) {
        return errno;
    }
    return m_pProtection == nullptr || m_pProtection->m_identity.FindFileSystem(file, status, ullFileSystem) ? 0
                                                                                                             : ESTALE;
}

uint32_t CDataBaseAgent::CachePeek(const char *file, char *md5_text, _SCAN_FILE_RESULT *out, bool *pbCurrent) {
    if (file == nullptr || md5_text == nullptr || out == nullptr || pbCurrent == nullptr) {
        return TARN_E_INVALIDARG;
    }
    _CacheRecord record = {};
    if (!CalcPathHash(file, record.liFilePathHash)) {
        return TARN_E_FAIL;
    }
    struct stat status = {};
    uint64_t ullFileSystem = 0;
    bool bHasCode = false;
    const bool bThere = IdentifyFile(file, status, ullFileSystem) == 0;
    const CBusyDeadline deadline(IsReader());
    const CReadLock lock(m_connection.m_tableLock);
    if (const uint32_t ulResult = ReadRecord(record, bHasCode); ulResult != SQLITE_OK) {
        return ulResult == SQLITE_DONE ? TARN_NOT_CACHED : TARN_E_FAIL;
    }
    if (m_pVirusTable->GetVirusDescByIndex(VerdictVirusIndex(record.liTreatVirus), out->szVirusDesc,
                                           TARN_VIRUS_DESC_SIZE) == 0) {
        return TARN_E_FAIL;
    }
    CopyVerdictOut(record, md5_text, out);
    *pbCurrent =
        bThere && bHasCode && record.lFileAttrHash == AttrHashOf(status) &&
        (m_pProtection == nullptr || m_pProtection->Allows({file, ullFileSystem, status}, record, out->szVirusDesc));
    return TARN_OK;
}

// False: the description is not there; the record's field is then empty.
bool CDataBaseAgent::CopyRecordOut(const _CacheRecord &stored, _LOCAL_CACHE_RECORD &record) {
    record = {};
    record.liPathHash = stored.liFilePathHash;
    record.liTimeStamp = stored.lTimeStamp;
    record.lAttrHash = stored.lFileAttrHash;
    record.lEngineCode = VerdictEngineCode(stored.liTreatVirus);
    record.ulFlags = WithResultState(VerdictFlags(stored.liTreatVirus), stored.lResultState);
    record.ulQueryCount = static_cast<uint32_t>(stored.lQueryCounts);
    CopyMD5Out(stored, record.szMD5);
    std::memcpy(record.szPathIndex, stored.szFilePathIndex, sizeof record.szPathIndex);
    return m_pVirusTable->GetVirusDescByIndex(VerdictVirusIndex(stored.liTreatVirus), record.szVirusDesc,
                                              sizeof record.szVirusDesc) != 0;
}

uint32_t CDataBaseAgent::Explain(const char *file, _LOCAL_CACHE_EXPLANATION &explanation) {
    _CacheRecord stored = {};
    if (!CalcPathHash(file, stored.liFilePathHash)) {
        return TARN_E_FAIL;
    }
    struct stat status = {};
    uint64_t ullFileSystem = 0;
    explanation.lStatusError = IdentifyFile(file, status, ullFileSystem);
    if (explanation.lStatusError == 0) {
        DescribeFile(status, explanation);
    }
    bool bHasCode = false;
    const CBusyDeadline deadline(IsReader());
    const CReadLock lock(m_connection.m_tableLock);
    const uint32_t ulResult = ReadRecord(stored, bHasCode);
    if (ulResult == SQLITE_DONE) {
        explanation.ulReason = TARN_WHY_UNKNOWN;
        return TARN_OK;
    }
    if (ulResult != SQLITE_OK) {
        return TARN_E_FAIL;
    }
    explanation.ulHasRecord = 1;
    if (!CopyRecordOut(stored, explanation.record)) {
        explanation.ulReason = TARN_WHY_DAMAGED;
    } else if (explanation.lStatusError != 0) {
        explanation.ulReason = TARN_WHY_GONE;
    } else if (explanation.lAttrHash != stored.lFileAttrHash) {
        explanation.ulReason = TARN_WHY_CHANGED;
    } else {
        const _FileIdentity identity = {file, ullFileSystem, status};
        const bool bAllowed = m_pProtection == nullptr ||
                              (bHasCode && m_pProtection->Allows(identity, stored, explanation.record.szVirusDesc));
        const bool bWithdrawn = !bAllowed && m_pProtection->m_withdrawals.Covers(stored);
        explanation.ulReason = bAllowed ? TARN_WHY_KNOWN : bWithdrawn ? TARN_WHY_WITHDRAWN : TARN_WHY_OTHER;
    }
    return TARN_OK;
}

uint32_t CDataBaseAgent::EnumerateRecords(int (*onRecord)(const _LOCAL_CACHE_RECORD *, void *), void *context) {
    std::vector<_CacheRecord> vecStored;
    std::vector<_LOCAL_CACHE_RECORD> vecRecords;
    int64_t liAfter = INT64_MIN;
    do {
        vecStored.clear();
        vecRecords.clear();
        {
            const CBusyDeadline deadline(IsReader());
            const CReadLock lock(m_connection.m_tableLock);
            if (m_pCacheTable->QueryRecordsAfter(liAfter, kRecordsAtOnce, vecStored) != 0) {
                TARN_LOG_ERROR("[%s][cache] the records cannot be read.");
                return TARN_E_FAIL;
            }
            for (const _CacheRecord &stored : vecStored) {
                (void)CopyRecordOut(stored, vecRecords.emplace_back()); // a damaged one shows without a description
            }
        }
        for (const _LOCAL_CACHE_RECORD &record : vecRecords) {
            if (record.liPathHash <= liAfter && liAfter != INT64_MIN) {
                TARN_LOG_ERROR("[%s][cache] the records are out of order."); // a damaged index would never end
                return TARN_E_FAIL;
            }
            const bool bEnough = onRecord(&record, context) != 0;
            if (!CForkMark::IsSet()) { // onRecord has forked, and this is the child
                return TARN_E_NOT_INITIALIZED;
            }
            if (bEnough) {
                return TARN_OK;
            }
            liAfter = record.liPathHash;
        }
    } while (vecRecords.size() == kRecordsAtOnce);
    return TARN_OK;
}
