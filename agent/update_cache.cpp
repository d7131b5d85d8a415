// Withdrawn digests, on the writer thread at its start. Each batch of up to 1000 deletions is one transaction under the
// table lock held for writing; lookups get their turn between batches.
#include "agent/dbagent.h"

#include "agent/update_list.h"
#include "formats/installation.h"
#include "util/log.h"

#include <algorithm>
#include <unistd.h>

namespace {

constexpr char kLogSource[] = "dbagent";
constexpr size_t kBatchSize = 1000; // deletions in one transaction
constexpr std::chrono::seconds kRetryInterval(10);
constexpr int kListsAtOnce = 10; // then the queues get their turn

// Applies the digest lines in batches. As ParseAndDeleteCacheRecordsByFileMD5, in whose name it logs.
template <typename IsRunning, typename Apply>
uint32_t DeleteListed(CListText &lines, IsRunning isRunning, Apply apply) {
    constexpr char kFunction[] = "ParseAndDeleteCacheRecordsByFileMD5";
    uint32_t ulResult = TARN_E_INVALIDARG; // not a single line
    std::vector<CacheMD5> vecBatch;
    vecBatch.reserve(kBatchSize);
    char szDigest[kDigestTextSize] = {};
    while (lines.NextDigest(szDigest) || lines.IsBrokenOff()) {
        if (lines.IsBrokenOff() || !isRunning()) {
            TARN_LOG_AS(ELogLevel::Error, kFunction, "[%s]clean cache is abort, will cleaning in next time");
            ulResult = TARN_E_ABORT;
            break;
        }
        ulResult = TARN_OK;
        TARN_LOG_AS(ELogLevel::Info, kFunction, "[%s]will clean cache md5: %s", szDigest);
        CacheMD5 md5 = {};
        if (!ParseDigest(szDigest, md5)) {
            continue;
        }
        vecBatch.push_back(md5);
        if (vecBatch.size() % kBatchSize == 0) {
            apply(vecBatch);
        }
        sleep(0); // yields
    }
    if (!vecBatch.empty()) {
        apply(vecBatch);
    }
    return ulResult;
}

// The digests of a list that has been set aside and is not kept in memory. Nothing answers meanwhile, so its digests
// need not be known all at once.
template <typename Delete> bool DeleteLongList(const std::function<bool()> &isRunning, Delete deleteDigests) {
    CUpdateListFile list(isRunning);
    if (list.Open(kListTakenPath) != TARN_OK) {
        return false;
    }
    std::vector<CacheMD5> vecDigests;
    do {
        vecDigests.clear();
        if (!ReadDigests(list.Digests(), kBatchSize, vecDigests) || !deleteDigests(vecDigests)) {
            return false;
        }
    } while (!vecDigests.empty());
    return true;
}

} // namespace

uint32_t CDataBaseAgent::CheckDeleteFrepCacheRecords() {
    int32_t lFlag = 0;
    if (!ReadCleanCacheFlag(kHashMarkerName, &lFlag)) {
        return TARN_E_FAIL;
    }
    if (const uint32_t ulResult = DeleteCacheRecordsByFileMD5(); ulResult != TARN_OK) {
        TARN_LOG_ERROR("[%s]DeleteCacheRecordsByFileMD5 failed with hr = 0x%08x", ulResult);
        m_bListRefused = IsFileThere(kUpdateCachePath);
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
    const auto isRunning = [this] { return m_queue.IsRunning(); };
    CUpdateListFile list(isRunning);
    uint32_t ulResult = list.Open(szPath);
    if (ulResult == TARN_NOT_CACHED) {
        return TARN_OK; // one that cannot be opened counts as done, and goes
    }
    if (ulResult != TARN_OK && ulResult != TARN_E_ABORT) {
        return ulResult;
    }
    ulResult = DeleteListed(list.Digests(), isRunning, [this](std::vector<CacheMD5> &batch) { ApplyBatch(batch); });
    if (ulResult != TARN_OK) {
        TARN_LOG_ERROR("[%s]ParseAndDeleteCacheRecordsByFileMD5() failed, hr=0x%08x", ulResult);
    }
    return ulResult;
}

uint32_t CDataBaseAgent::ParseAndDeleteCacheRecordsByFileMD5(char *text) {
    CListText lines = CListText(std::string_view(text));
    return DeleteListed(
        lines, [this] { return m_queue.IsRunning(); }, [this](std::vector<CacheMD5> &batch) { ApplyBatch(batch); });
}

// A failed batch is reported and dropped: its digests are not tried again.
void CDataBaseAgent::ApplyBatch(std::vector<CacheMD5> &batch) {
    if (BatchDeleteCacheRecordsByFileMD5(batch) != TARN_OK) {
        TARN_LOG_AS(ELogLevel::Error, "ParseAndDeleteCacheRecordsByFileMD5",
                    "[%s]BatchDeleteCacheRecordsByFileMD5 failed");
    }
    batch.clear();
}

void CDataBaseAgent::ApplyWithdrawals() {
    if (m_pProtection->m_withdrawals.IsEnginePending() && m_pProtection->m_withdrawals.TakeEngine() &&
        DeleteByEngine(kWithdrawnEngine) == TARN_OK) {
        m_pProtection->m_withdrawals.EngineDone();
    }
    m_bListRefused = false;
    // Until a list is read nothing answers, so one that came while its forerunner was worked off is taken at once.
    for (int i = 0; i < kListsAtOnce && m_pProtection->m_withdrawals.IsListPending(); ++i) {
        if (!ApplyList()) {
            break;
        }
    }
    m_pProtection->m_nextTry = std::chrono::steady_clock::now() + kRetryInterval;
}

// False when one batch failed or the cache is being shut down: the list stays in force, and all of it is deleted again
// at a later pass or the next start, which costs little.
bool CDataBaseAgent::ApplyList() {
    const auto isRunning = [this] { return m_queue.IsRunning(); };
    const uint32_t ulResult = m_pProtection->m_withdrawals.TakeList(isRunning);
    m_bListRefused = ulResult == TARN_E_INVALIDARG;
    if (ulResult != TARN_OK) {
        return m_bListRefused || ulResult == TARN_NOT_CACHED;
    }
    const auto deleteDigests = [this](const std::vector<CacheMD5> &digests) { return DeleteDigests(digests); };
    if (m_pProtection->m_withdrawals.IsTooLong() ? !DeleteLongList(isRunning, deleteDigests)
                                                 : !DeleteDigests(m_pProtection->m_withdrawals.Digests())) {
        return false;
    }
    m_pProtection->m_withdrawals.ListDone();
    return true;
}

bool CDataBaseAgent::DeleteDigests(const std::vector<CacheMD5> &digests) {
    for (size_t nDone = 0; nDone < digests.size(); nDone += kBatchSize) {
        if (!m_queue.IsRunning()) {
            return false;
        }
        const size_t nEnd = std::min(nDone + kBatchSize, digests.size());
        const std::vector<CacheMD5> vecBatch(&digests[nDone], &digests[0] + nEnd);
        const CBusyDeadline deadline(true); // a list is withdrawn in this way with the key "protect" alone
        const CWriteLock lock(m_connection.m_tableLock);
        if (!DeleteBatchAndCommit(vecBatch)) {
            (void)RollbackTransaction();
            return false;
        }
    }
    return true;
}

void CDataBaseAgent::RetryWithdrawals() {
    if (m_pProtection != nullptr &&
        (m_pProtection->m_withdrawals.IsEnginePending() || m_pProtection->m_withdrawals.IsListPending()) &&
        std::chrono::steady_clock::now() >= m_pProtection->m_nextTry) {
        ApplyWithdrawals();
    }
}

uint32_t CDataBaseAgent::BatchDeleteCacheRecordsByFileMD5(std::vector<CacheMD5> &batch) {
    if (batch.empty()) {
        return TARN_OK;
    }
    const CBusyDeadline deadline(m_config.bProtect);
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
