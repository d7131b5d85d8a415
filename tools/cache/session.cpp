#include "tools/cache/session.h"

#include "tools/atomic_file.h"
#include "tools/cache/cache_use.h"
#include "tools/cache/verdict_record.h"
#include "tools/text.h"
#include "tools/withdrawn_list.h"

#include <tarncache.h>

#include <ctime>
#include <filesystem>

namespace {

constexpr int kLongestWait = 60; // seconds for a marker to go
constexpr int kPollStep = 5;     // milliseconds
constexpr int kNoteAfter = 3;    // seconds

bool HasRecords(const CInstallRoot &root) {
    std::error_code error;
    const bool bEmpty = std::filesystem::is_empty(root.CacheFolder(), error);
    return error || !bEmpty;
}

// Does what an updater does: with other signatures than last time, every verdict of the engine is dropped. The marker
// comes first; were the new identity stored before it, a crash in between would keep the old verdicts.
bool MarkChangedSignatures(const CInstallRoot &root, const std::string &strFingerprint, std::string &strError) {
    constexpr uint64_t ullLargestId = 4096; // bytes
    std::string strStored;
    bool bMissing = false;
    if (ReadWholeFile(root.SignatureId(), ullLargestId, strStored, bMissing, strError) &&
        strStored == strFingerprint + "\n") {
        return true;
    }
    if (HasRecords(root) && !WriteFileAtomically(root.EngineMarker(), "", 0600, EExisting::Replace, strError)) {
        return false;
    }
    return WriteFileAtomically(root.SignatureId(), strFingerprint + "\n", 0600, EExisting::Replace, strError);
}

std::filesystem::file_time_type ChangeTime(const std::string &strPath) {
    std::error_code error;
    return std::filesystem::last_write_time(strPath, error);
}

// What the cache finds at its start.
struct _Found {
    bool bList = false;                                 // a pending one
    std::filesystem::file_time_type configuration = {}; // when it was written last
};

// The cache drops records on its writer thread after the start. A look-up before that could still answer from them. A
// list takes as long as it takes: one that is given up would be begun anew by every scan. Only when the writer has gone
// on to rewrite its configuration, and the list is still there, has it refused the list. The marker goes after its
// list, and only then may an updater leave the next one.
bool WaitForDropping(const CInstallRoot &root, const _Found &found, const std::atomic<bool> &bStop,
                     const _CacheListener &listener) {
    constexpr int nStepsInSecond = 1000 / kPollStep;
    constexpr timespec step = {0, kPollStep * 1000000L};
    int nIdle = 0;
    for (int nSteps = 1; nIdle < kLongestWait * nStepsInSecond; ++nSteps) {
        const bool bPending = Exists(root.EngineMarker()) || (found.bList && Exists(root.HashMarker()));
        if (!bPending || bStop.load()) {
            return true;
        }
        const bool bAtWork =
            found.bList && Exists(root.WithdrawnList()) && ChangeTime(root.ConfigFile()) == found.configuration;
        nIdle = bAtWork ? 0 : nIdle + 1;
        if (nSteps == kNoteAfter * nStepsInSecond) {
            listener.onNote("the cache drops outdated verdicts first; the scan begins when that is done");
        }
        if (nSteps % nStepsInSecond == 0) {
            listener.onProgress("dropping outdated verdicts, " + DurationText(nSteps * kPollStep / 1000.0));
        }
        (void)nanosleep(&step, nullptr);
    }
    return false;
}

} // namespace

bool CCacheSession::Start(const CInstallRoot &root, const std::string &strFingerprint, const std::atomic<bool> &bStop,
                          const _CacheListener &listener, std::string &strError) {
    m_ulTag = SignatureTag(strFingerprint);
    if (!root.Prepare(strError)) {
        return false;
    }
    strError = "another scan is using it";
    if (m_scanLock.TryTake(root.ScanLock(), strError) != ELock::Taken) {
        return false;
    }
    const auto note = [&listener] { listener.onNote("waiting for digests that are being withdrawn"); };
    strError = "interrupted";
    const bool bDone = m_updateLock.Take(root.UpdateLock(), bStop, note, strError) == ELock::Taken &&
                       Open(root, strFingerprint, bStop, listener, strError);
    listener.onProgress("");
    // After an interruption the writer may still be at work on the list, until the cache is closed.
    if (!bDone || !bStop.load()) {
        m_updateLock.Release();
    }
    if (!bDone) {
        m_scanLock.Release();
    }
    return bDone;
}

bool CCacheSession::Open(const CInstallRoot &root, const std::string &strFingerprint, const std::atomic<bool> &bStop,
                         const _CacheListener &listener, std::string &strError) {
    if (!MarkChangedSignatures(root, strFingerprint, strError)) {
        return false;
    }
    std::string strDigests;
    bool bMissing = false;
    const _Found found = {root.IsListPending(), ChangeTime(root.ConfigFile())};
    if (found.bList && !ReadPendingList(root, strDigests, bMissing, strError)) {
        return false;
    }
    std::string().swap(strDigests); // it may be long
    if (Exists(root.HashMarker()) && !found.bList) {
        listener.onNote(EscapeName(root.HashMarker()) + " has no list beside it; withdraw the digests again");
    }
    const uint32_t ulCode = LocalCacheInit();
    if (ulCode != TARN_OK) {
        strError = StartFailureText(root, ulCode);
        return false;
    }
    m_bInUse = true;
    if (WaitForDropping(root, found, bStop, listener)) {
        return true;
    }
    Stop();
    strError = "the cache did not drop outdated verdicts within " + std::to_string(kLongestWait) + " seconds; check " +
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
