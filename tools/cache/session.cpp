#include "tools/cache/session.h"

#include "tools/atomic_file.h"
#include "tools/scan/interrupt.h"
#include "tools/text.h"
#include "tools/withdrawn_list.h"

#include <tarncache.h>

#include <array>
#include <cstdio>
#include <ctime>
#include <filesystem>

namespace {

constexpr int kLongestWait = 60; // seconds for a marker to go
constexpr int kPollStep = 5;     // milliseconds
constexpr int kNoteAfter = 3;    // seconds

std::string CodeText(uint32_t ulCode) {
    std::array<char, 16> buffer = {};
    (void)std::snprintf(buffer.data(), buffer.size(), "0x%08x", ulCode);
    return buffer.data();
}

std::string StartFailure(const CInstallRoot &root, uint32_t ulCode) {
    const std::string strFolder = EscapeName(root.CacheFolder());
    return "the cache does not start (" + CodeText(ulCode) + "): " + strFolder +
           " cannot be written to, its disk is nearly full (diskthreshold in " + EscapeName(root.ConfigFile()) +
           "), its database is in use by another process, or it is damaged: then delete " + strFolder +
           "/morcache.db while nothing uses it, the files are scanned once more; TARN_LOG_LEVEL=debug tells which";
}

bool HasRecords(const CInstallRoot &root) {
    std::error_code error;
    const bool bEmpty = std::filesystem::is_empty(root.CacheFolder(), error);
    return error || !bEmpty;
}

// Does what an updater does: with other signatures than last time, every verdict of the engine is dropped. The marker
// comes first; were the new identity stored before it, a crash in between would keep the old verdicts.
bool MarkChangedSignatures(const CInstallRoot &root, const std::string &strFingerprint, std::string &strWhy) {
    constexpr uint64_t largestId = 4096;
    std::string strStored;
    bool bMissing = false;
    if (ReadWholeFile(root.SignatureId(), largestId, strStored, bMissing, strWhy) &&
        strStored == strFingerprint + "\n") {
        return true;
    }
    if (HasRecords(root) && !WriteFileAtomically(root.EngineMarker(), "", 0600, EExisting::Replace, strWhy)) {
        return false;
    }
    return WriteFileAtomically(root.SignatureId(), strFingerprint + "\n", 0600, EExisting::Replace, strWhy);
}

// A marker without its list is never consumed; there is nothing to wait for then.
bool IsListPending(const CInstallRoot &root) {
    return Exists(root.HashMarker()) && Exists(root.WithdrawnList());
}

std::filesystem::file_time_type ChangeTime(const std::string &strPath) {
    std::error_code error;
    return std::filesystem::last_write_time(strPath, error);
}

// What the cache finds at its start.
struct _Found {
    bool bList;                                    // a pending one
    std::filesystem::file_time_type configuration; // when it was written last
};

// The cache drops records on its writer thread after the start. A look-up before that could still answer from them. A
// list takes as long as it takes: one that is given up would be begun anew by every scan. Only when the writer has gone
// on to rewrite its configuration, and the list is still there, has it refused the list. The marker goes after its
// list, and only then may an updater leave the next one.
bool WaitForDropping(const CInstallRoot &root, const _Found &found, CScanReport &report) {
    constexpr int nStepsInSecond = 1000 / kPollStep;
    constexpr timespec step = {0, kPollStep * 1000000L};
    int nIdle = 0;
    for (int nSteps = 1; nIdle < kLongestWait * nStepsInSecond; ++nSteps) {
        const bool bPending = Exists(root.EngineMarker()) || (found.bList && Exists(root.HashMarker()));
        if (!bPending || CInterrupt::StopFlag().load()) {
            return true;
        }
        const bool bAtWork =
            found.bList && Exists(root.WithdrawnList()) && ChangeTime(root.ConfigFile()) == found.configuration;
        nIdle = bAtWork ? 0 : nIdle + 1;
        if (nSteps == kNoteAfter * nStepsInSecond) {
            report.Note("the cache drops outdated verdicts first; the scan begins when that is done");
        }
        if (nSteps % nStepsInSecond == 0) {
            report.Progress("dropping outdated verdicts, " + DurationText(nSteps * kPollStep / 1000.0));
        }
        (void)nanosleep(&step, nullptr);
    }
    return false;
}

} // namespace

bool CCacheSession::Start(const CInstallRoot &root, const std::string &strFingerprint, CScanReport &report,
                          std::string &strWhy) {
    m_ulTag = SignatureTag(strFingerprint);
    if (!root.Prepare(strWhy)) {
        return false;
    }
    strWhy = "another scan is using it";
    if (m_scanLock.TryTake(root.ScanLock(), strWhy) != ELock::Taken) {
        return false;
    }
    const auto note = [&report] { report.Note("waiting for digests that are being withdrawn"); };
    const std::atomic<bool> &bStop = CInterrupt::StopFlag();
    strWhy = "interrupted";
    const bool bDone = m_updateLock.Take(root.UpdateLock(), bStop, note, strWhy) == ELock::Taken &&
                       Open(root, strFingerprint, report, strWhy);
    report.Progress("");
    // After an interruption the writer may still be at work on the list, until the cache is closed.
    if (!bDone || !bStop.load()) {
        m_updateLock.Release();
    }
    if (!bDone) {
        m_scanLock.Release();
    }
    return bDone;
}

bool CCacheSession::Open(const CInstallRoot &root, const std::string &strFingerprint, CScanReport &report,
                         std::string &strWhy) {
    if (!MarkChangedSignatures(root, strFingerprint, strWhy)) {
        return false;
    }
    std::string strDigests;
    bool bMissing = false;
    const _Found found = {IsListPending(root), ChangeTime(root.ConfigFile())};
    if (found.bList && !ReadPendingList(root, strDigests, bMissing, strWhy)) {
        return false;
    }
    std::string().swap(strDigests); // it may be long
    if (Exists(root.HashMarker()) && !found.bList) {
        report.Note(EscapeName(root.HashMarker()) + " has no list beside it; withdraw the digests again");
    }
    const uint32_t ulCode = LocalCacheInit();
    if (ulCode != TARN_OK) {
        strWhy = StartFailure(root, ulCode);
        return false;
    }
    m_bInUse = true;
    if (WaitForDropping(root, found, report)) {
        return true;
    }
    Stop();
    strWhy = "the cache did not drop outdated verdicts within " + std::to_string(kLongestWait) + " seconds; check " +
             EscapeName(root.EngineMarker()) + " and " + EscapeName(root.HashMarker());
    return false;
}

void CCacheSession::Stop() {
    if (!m_bInUse) {
        return;
    }
    m_bInUse = false;
    (void)LocalCacheUnInit();
    // Only now are the records in the table, where they can be deleted.
    if (!m_vecTakenBack.empty() && LocalCacheInitEx() == TARN_OK) {
        for (const std::string &strMD5 : m_vecTakenBack) {
            (void)LocalCacheDeleteByFileHash(strMD5.c_str());
        }
        (void)LocalCacheUnInit();
    }
    m_updateLock.Release();
    m_scanLock.Release();
}

bool CCacheSession::Find(const std::string &strPath, _FileVerdict &verdict) const {
    char szMD5[TARN_MD5_TEXT_SIZE] = {};
    _SCAN_FILE_RESULT record = {};
    return LocalCacheLookup(strPath.c_str(), szMD5, &record) == TARN_OK && FromRecord(record, szMD5, m_ulTag, verdict);
}

bool CCacheSession::Add(const std::string &strPath, const _FileVerdict &verdict) {
    _SCAN_FILE_RESULT record = ToRecord(verdict, m_ulTag);
    if (LocalCacheAdd(strPath.c_str(), verdict.strMD5.c_str(), &record) != TARN_OK) {
        return false;
    }
    m_added.Note(strPath);
    return true;
}

void CCacheSession::TakeBack(const std::string &strMD5) {
    const std::lock_guard lock(m_mutex);
    m_vecTakenBack.push_back(strMD5);
}

CReadOnlyCache::~CReadOnlyCache() {
    if (m_bStarted) {
        (void)LocalCacheUnInit();
    }
}

bool CReadOnlyCache::Start(const CInstallRoot &root, std::string &strError) {
    if (!root.IsSetUp()) {
        strError = "there is no cache in " + EscapeName(root.Path()) + " yet; the first scan makes one";
        return false;
    }
    const uint32_t ulCode = LocalCacheInitEx();
    m_bStarted = ulCode == TARN_OK;
    if (!m_bStarted) {
        strError = StartFailure(root, ulCode);
    }
    return m_bStarted;
}

std::string PendingText(const CInstallRoot &root) {
    if (Exists(root.EngineMarker())) {
        return "an engine update is pending; the next scan drops this engine's verdicts";
    }
    if (IsListPending(root)) {
        return "withdrawn digests are pending; the next scan drops their verdicts";
    }
    return {};
}
