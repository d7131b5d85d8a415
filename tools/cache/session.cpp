#include "tools/cache/session.h"

#include "tools/cache/cache_use.h"
#include "tools/cache/small_file.h"
#include "tools/cache/verdict_record.h"
#include "tools/cache/withdrawn_list.h"
#include "tools/text/text.h"

#include <tarncache.h>

namespace {

constexpr uint32_t kWaitStep = 50;        // milliseconds; an interruption is noticed after that
constexpr uint32_t kStepsInSecond = 20;   // of them
constexpr uint32_t kNoteAfter = 3;        // seconds
constexpr uint32_t kFlushStep = 1000;     // milliseconds
constexpr int kMostIdleSteps = 10;        // of them, in which nothing got stored: another process holds the database
constexpr uint64_t kLargestIdFile = 4096; // bytes

// With other signatures than last time, every verdict of the engine goes. The new identity is stored last: were it
// stored first, a crash in between would keep the old verdicts.
bool DropOtherSignatures(const CInstallRoot &root, const std::string &strFingerprint, const _CacheListener &listener,
                         std::string &strError) {
    std::string strStored;
    std::string strIgnored; // an identity that cannot be read counts as another one
    if (ReadSmallFile(root.SignatureId(), kLargestIdFile, strStored, strIgnored) == EReadFile::Read &&
        strStored == strFingerprint + "\n") {
        return true;
    }
    listener.onProgress("dropping the verdicts of other signatures");
    if (const uint32_t ulCode = LocalCacheDeleteByEngine(kEngineCode); ulCode != TARN_OK) {
        strError = std::string("the verdicts of other signatures cannot be deleted: ") + LocalCacheErrorText(ulCode);
        return false;
    }
    return WriteSmallFile(root.SignatureId(), strFingerprint + "\n", 0600, EExisting::Replace, strError);
}

// A lookup before the start-up work is done could still answer with a withdrawn verdict. A list of digests takes as
// long as it takes: one that is given up would be begun anew by every scan.
uint32_t WaitUntilReady(const std::atomic<bool> &bStop, const _CacheListener &listener) {
    uint32_t ulCode = LocalCacheWaitReady(0);
    for (uint32_t nSteps = 1; ulCode == TARN_E_TIMEOUT && !bStop.load(); ++nSteps) {
        ulCode = LocalCacheWaitReady(kWaitStep);
        if (nSteps == kNoteAfter * kStepsInSecond) {
            listener.onNote("the cache drops outdated verdicts first; the scan begins when that is done");
        }
        if (nSteps % kStepsInSecond == 0) {
            listener.onProgress("dropping outdated verdicts, " + DurationText(nSteps * kWaitStep / 1000.0));
        }
    }
    return ulCode;
}

// As far as it can be told: not while another process holds the database whole.
void AskQueued(uint64_t &ullQueued) {
    _LOCAL_CACHE_INFO info = {};
    info.size = sizeof info;
    if (LocalCacheGetInfo(&info) == TARN_OK) {
        ullQueued = info.ullQueued;
    }
}

// Returns how many records were lost since the start, or are about to be.
uint64_t WaitUntilStored(const _CacheListener &listener) {
    uint64_t ullLost = 0;
    uint64_t ullQueued = 0;
    int nIdle = 0;
    uint32_t ulCode = LocalCacheFlush(kFlushStep, &ullLost);
    while (ulCode == TARN_E_TIMEOUT && nIdle < kMostIdleSteps) {
        listener.onProgress("storing verdicts");
        const uint64_t ullBefore = ullQueued;
        AskQueued(ullQueued);
        nIdle = ullQueued < ullBefore ? 0 : nIdle + 1;
        ulCode = LocalCacheFlush(kFlushStep, &ullLost);
    }
    listener.onProgress("");
    if (ulCode == TARN_OK) {
        return ullLost;
    }
    AskQueued(ullQueued); // nobody stores these any more
    return ullLost + ullQueued;
}

} // namespace

bool CCacheSession::Start(const CInstallRoot &root, const std::string &strFingerprint, const std::atomic<bool> &bStop,
                          const _CacheListener &listener, std::string &strError) {
    m_ulTag = SignatureTag(strFingerprint);
    if (!root.Prepare(strError)) {
        return false;
    }
    const auto note = [&listener] { listener.onNote("waiting for digests that are being withdrawn"); };
    const bool bDone = m_scanLock.TryTake(root.ScanLock(), "another scan is using it", strError) &&
                       m_updateLock.Take(root.UpdateLock(), bStop, note, strError) &&
                       Open(root, strFingerprint, bStop, listener, strError);
    listener.onProgress("");
    // After an interruption the cache may still be at work on a list, until it is closed.
    if (bDone && !bStop.load()) {
        m_updateLock.Release();
    }
    if (!bDone) {
        Close();
    }
    return bDone;
}

bool CCacheSession::Open(const CInstallRoot &root, const std::string &strFingerprint, const std::atomic<bool> &bStop,
                         const _CacheListener &listener, std::string &strError) {
    // Nothing else tells of it: the cache leaves such a marker alone, and no digest is known to be withdrawn.
    if (Exists(root.HashMarker()) && !root.IsListPending()) {
        listener.onNote(EscapeName(root.HashMarker()) + " has no list beside it; withdraw the digests again");
    }
    root.ExportToLibrary();
    const uint32_t ulStarted = LocalCacheInit();
    if (ulStarted != TARN_OK) {
        strError = StartFailureText(root, ulStarted);
        return false;
    }
    m_bInUse = true;
    if (!DropOtherSignatures(root, strFingerprint, listener, strError)) {
        return false;
    }
    // What could not be dropped for the moment is not answered either, so only a refused list is in the way.
    const bool bRefused = WaitUntilReady(bStop, listener) == TARN_E_FAIL && !bStop.load();
    if (bRefused) {
        strError = UnfitListText(root);
    }
    return !bRefused;
}

uint64_t CCacheSession::Stop(const _CacheListener &listener) {
    const uint64_t ullLost = m_bInUse ? WaitUntilStored(listener) : 0;
    Close();
    return ullLost;
}

void CCacheSession::Close() {
    if (m_bInUse) {
        m_bInUse = false;
        (void)LocalCacheUnInit();
    }
    m_updateLock.Release();
    m_scanLock.Release();
}

bool CCacheSession::Find(const std::string &strPath, const struct stat &status, _FileVerdict &verdict) const {
    char szMD5[TARN_MD5_TEXT_SIZE] = {};
    _SCAN_FILE_RESULT record = {};
    return LocalCacheLookupStat(strPath.c_str(), &status, szMD5, &record) == TARN_OK &&
           FromRecord(record, szMD5, m_ulTag, verdict);
}

bool CCacheSession::BeginScan(int fd, _LOCAL_CACHE_SCAN &scan) const {
    scan.size = sizeof scan;
    return m_bInUse && LocalCacheScanBegin(fd, &scan) == TARN_OK;
}

uint32_t CCacheSession::FinishScan(_LOCAL_CACHE_SCAN &scan, const std::string &strPath,
                                   const _FileVerdict &verdict) const {
    const _SCAN_FILE_RESULT record = ToRecord(verdict, m_ulTag);
    uint32_t ulReason = TARN_REMEMBER_REFUSED; // stays when the call fails
    (void)LocalCacheScanFinish(&scan, strPath.c_str(), verdict.strMD5.c_str(), &record, &ulReason);
    return ulReason;
}
