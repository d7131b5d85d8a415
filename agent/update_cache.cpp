// Withdrawn digests, on the writer thread at its start. Each batch of up to 1000 deletions is one transaction under the
// table lock held for writing; lookups get their turn between batches.
#include "agent/dbagent.h"

#include "agent/update_list.h"
#include "formats/installation.h"
#include "util/log.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char kLogSource[] = "dbagent";
constexpr size_t kBatchSize = 1000; // deletions in one transaction

struct _FileClose {
    void operator()(std::FILE *pFile) const { (void)std::fclose(pFile); }
};
struct _MemoryFree {
    void operator()(char *pMemory) const { std::free(pMemory); }
};

// Like fopen "rb", but a pipe in the list's place cannot hold the thread up.
std::unique_ptr<std::FILE, _FileClose> OpenForReading(const char *pszPath) {
    int fd = open(pszPath, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0 && errno == EWOULDBLOCK) { // a file server holds a lease on it and gives it up soon
        fd = open(pszPath, O_RDONLY | O_CLOEXEC);
    }
    if (fd < 0) {
        return nullptr;
    }
    std::unique_ptr<std::FILE, _FileClose> pFile(fdopen(fd, "rb"));
    if (pFile == nullptr) {
        (void)close(fd);
    }
    return pFile;
}

} // namespace

uint32_t CDataBaseAgent::CheckDeleteFrepCacheRecords() {
    int32_t lFlag = 0;
    if (!ReadCleanCacheFlag(kHashMarkerName, &lFlag)) {
        return TARN_E_FAIL;
    }
    if (const uint32_t ulResult = DeleteCacheRecordsByFileMD5(); ulResult != TARN_OK) {
        TARN_LOG_ERROR("[%s]DeleteCacheRecordsByFileMD5 failed with hr = 0x%08x", ulResult);
        m_bListRefused = IsUpdateListThere();
        return TARN_E_FAIL; // marker and list stay for the next start
    }
    (void)ResetCleanCacheFlag(kHashMarkerName);
    return TARN_OK;
}

uint32_t CDataBaseAgent::DeleteCacheRecordsByFileMD5() {
    char szPath[TARN_PATH_SIZE] = {};
    if (!GetUpdateCacheFilePath(szPath, sizeof szPath)) {
        TARN_LOG_ERROR("[%s]GetUpdateCacheFilePath() failed");
        return TARN_E_FAIL;
    }
    const auto pFile = OpenForReading(szPath);
    if (pFile == nullptr) {
        TARN_LOG_ERROR("[%s]fopen %s failed", szPath);
        return TARN_OK; // a list that cannot be opened counts as done, and is removed
    }
    struct stat status = {};
    if (stat(szPath, &status) != 0) {
        TARN_LOG_ERROR("[%s]_stat(szFilePath, &info) %s failed with hr = 0x%08x", szPath, TARN_E_FAIL);
        return TARN_E_FAIL;
    }
    if (status.st_size <= 0 || static_cast<uint64_t>(status.st_size) > kMaxUpdateListSize) {
        return TARN_E_FAIL;
    }
    const auto nSize = static_cast<size_t>(status.st_size);
    const std::unique_ptr<char, _MemoryFree> pText(static_cast<char *>(std::calloc(nSize + 1, 1)));
    if (pText == nullptr) {
        TARN_LOG_ERROR("[%s]GetFileSize() %s failed with hr = 0x%08x", szPath, TARN_E_OUTOFMEMORY);
        return TARN_E_OUTOFMEMORY;
    }
    // What a short read leaves out stays zero and deciphers to no digest.
    [[maybe_unused]] const size_t nRead = std::fread(pText.get(), 1, nSize, pFile.get());
    ParseMemToChar(pText.get(), nSize);
    char szVersionId[kVersionIdSize] = {};
    char *pszDigests = SplitVersionLine(pText.get(), szVersionId);
    if (pszDigests == nullptr) {
        TARN_LOG_ERROR("[%s]ParseToGetVersionID() failed");
        return TARN_E_INVALIDARG;
    }
    TARN_LOG_DEBUG("[%s]Open file %s and get VersionID = %s", szPath, szVersionId);
    const uint32_t ulResult = ParseAndDeleteCacheRecordsByFileMD5(pszDigests);
    if (ulResult != TARN_OK) {
        TARN_LOG_ERROR("[%s]ParseAndDeleteCacheRecordsByFileMD5() failed, hr=0x%08x", ulResult);
    }
    return ulResult;
}

uint32_t CDataBaseAgent::ParseAndDeleteCacheRecordsByFileMD5(char *text) {
    CDigestLines lines(text);
    char szDigest[kDigestTextSize] = {};
    if (!lines.Next(szDigest)) {
        return TARN_E_INVALIDARG;
    }
    uint32_t ulResult = TARN_OK;
    std::vector<CacheMD5> vecBatch;
    vecBatch.reserve(kBatchSize);
    do {
        if (!m_queue.IsRunning()) {
            TARN_LOG_ERROR("[%s]clean cache is abort, will cleaning in next time");
            ulResult = TARN_E_ABORT;
            break;
        }
        TARN_LOG_INFO("[%s]will clean cache md5: %s", szDigest);
        CacheMD5 md5 = {};
        if (!ParseDigest(szDigest, md5)) {
            continue;
        }
        vecBatch.push_back(md5);
        if (vecBatch.size() % kBatchSize == 0) {
            ApplyBatch(vecBatch);
        }
        sleep(0); // yields
    } while (lines.Next(szDigest));
    if (!vecBatch.empty()) {
        ApplyBatch(vecBatch);
    }
    return ulResult;
}

// A failed batch is reported and dropped: its digests are not tried again.
void CDataBaseAgent::ApplyBatch(std::vector<CacheMD5> &batch) {
    if (BatchDeleteCacheRecordsByFileMD5(batch) != TARN_OK) {
        TARN_LOG_AS(ELogLevel::Error, "ParseAndDeleteCacheRecordsByFileMD5",
                    "[%s]BatchDeleteCacheRecordsByFileMD5 failed");
    }
    batch.clear();
}

uint32_t CDataBaseAgent::BatchDeleteCacheRecordsByFileMD5(std::vector<CacheMD5> &batch) {
    if (batch.empty()) {
        return TARN_OK;
    }
    const CWriteLock lock(m_connection.m_tableLock);
    if (DeleteBatchAndCommit(batch)) {
        return TARN_OK;
    }
    const uint32_t ulResult = RollbackTransaction();
    if (ulResult != TARN_OK) {
        TARN_LOG_ERROR("[%s]RollbackTransaction failed with hr = 0x%08x", ulResult);
    }
    return ulResult; // on purpose: callers learn only of a failed rollback
}

bool CDataBaseAgent::DeleteBatchAndCommit(const std::vector<CacheMD5> &batch) {
    constexpr char kFunction[] = "BatchDeleteCacheRecordsByFileMD5";
    if (const uint32_t ulResult = BeginTransactoion(TransactionType::Immediate); ulResult != TARN_OK) {
        TARN_LOG_AS(ELogLevel::Error, kFunction, "[%s]BeginTransactoion failed with hr = 0x%08x", ulResult);
        return false;
    }
    for (const CacheMD5 &md5 : batch) {
        if (m_pCacheTable->DeleteRecordByMD5(md5.liHighMD5, md5.liLowMD5) == 0) {
            TARN_LOG_AS(ELogLevel::Error, kFunction, "[%s]DeleteRecordByMD5 failed, HMD5:%d, LMD5:%d",
                        static_cast<int>(md5.liHighMD5), static_cast<int>(md5.liLowMD5));
            return false;
        }
    }
    if (const uint32_t ulResult = CommitTransaction(); ulResult != TARN_OK) {
        TARN_LOG_AS(ELogLevel::Error, kFunction, "[%s]CommitTransaction failed with hr = 0x%08x", ulResult);
        return false;
    }
    return true;
}
