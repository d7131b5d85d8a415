#include "tools/cache_session.h"

#include "tools/atomic_file.h"
#include "tools/interrupt.h"
#include "tools/text.h"

#include <tarncache.h>

#include <array>
#include <cstdio>
#include <ctime>
#include <filesystem>

namespace {

constexpr int kLongestWait = 60; // seconds for the cache to drop what the markers tell
constexpr int kPollStep = 5;     // milliseconds

std::string CodeText(uint32_t uCode) {
    std::array<char, 16> buffer{};
    (void)std::snprintf(buffer.data(), buffer.size(), "0x%08x", uCode);
    return buffer.data();
}

std::string StartFailure(const CInstallRoot &root, uint32_t uCode) {
    return "the cache does not start (" + CodeText(uCode) + "); check that " + EscapeName(root.CacheFolder()) +
           " can be written to, that its disk is not nearly full (diskthreshold in " +
           EscapeName(root.Below("config/tarncfg.ini")) + ") and what the log says with TARN_LOG_LEVEL=debug";
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
    if (ReadWholeFile(root.SignatureId(), largestId, strStored, bMissing, strWhy) && strStored == strFingerprint + "\n")
        return true;
    if (HasRecords(root) && !WriteFileAtomically(root.EngineMarker(), "", 0600, EExisting::Replace, strWhy))
        return false;
    return WriteFileAtomically(root.SignatureId(), strFingerprint + "\n", 0600, EExisting::Replace, strWhy);
}

// A marker without its list is never consumed; there is nothing to wait for then.
bool IsListPending(const CInstallRoot &root) {
    return Exists(root.HashMarker()) && Exists(root.WithdrawnList());
}

// The cache drops records on its writer thread after the start. A look-up before that could still answer from them.
bool WaitForDropping(const CInstallRoot &root) {
    const timespec step{0, kPollStep * 1000000L};
    for (int nSteps = kLongestWait * 1000 / kPollStep; nSteps > 0; --nSteps) {
        if ((!Exists(root.EngineMarker()) && !IsListPending(root)) || CInterrupt::StopFlag().load())
            return true;
        (void)nanosleep(&step, nullptr);
    }
    return false;
}

} // namespace

bool CCacheSession::Start(const CInstallRoot &root, const std::string &strFingerprint, std::string &strWhy,
                          std::string &strRemark) {
    m_uTag = SignatureTag(strFingerprint);
    if (!root.Prepare(strWhy) || !MarkChangedSignatures(root, strFingerprint, strWhy))
        return false;
    if (Exists(root.HashMarker()) && !Exists(root.WithdrawnList()))
        strRemark = EscapeName(root.HashMarker()) + " has no list beside it; withdraw the digests again";
    const uint32_t uCode = LocalCacheInit();
    if (uCode != TARN_OK) {
        strWhy = StartFailure(root, uCode);
        return false;
    }
    m_bInUse = true;
    if (WaitForDropping(root))
        return true;
    Stop();
    strWhy = "the cache did not drop outdated verdicts within " + std::to_string(kLongestWait) + " seconds; check " +
             EscapeName(root.HashMarker()) + ", " + EscapeName(root.WithdrawnList()) + " and the key in " +
             EscapeName(root.KeyFile());
    return false;
}

void CCacheSession::Stop() {
    if (!m_bInUse)
        return;
    m_bInUse = false;
    (void)LocalCacheUnInit();
    // Only now are the records in the table, where they can be deleted.
    if (!m_vecTakenBack.empty() && LocalCacheInitEx() == TARN_OK) {
        for (const std::string &strMD5 : m_vecTakenBack)
            (void)LocalCacheDeleteByFileHash(strMD5.c_str());
        (void)LocalCacheUnInit();
    }
}

bool CCacheSession::Find(const std::string &strPath, _FileVerdict &verdict) const {
    char szMD5[TARN_MD5_TEXT_SIZE] = {};
    _SCAN_FILE_RESULT record{};
    return LocalCacheLookup(strPath.c_str(), szMD5, &record) == TARN_OK && FromRecord(record, szMD5, m_uTag, verdict);
}

bool CCacheSession::Add(const std::string &strPath, const _FileVerdict &verdict) {
    _SCAN_FILE_RESULT record = ToRecord(verdict, m_uTag);
    if (LocalCacheAdd(strPath.c_str(), verdict.strMD5.c_str(), &record) != TARN_OK)
        return false;
    return true;
}

void CCacheSession::TakeBack(const std::string &strMD5) {
    const std::lock_guard lock(m_mutex);
    m_vecTakenBack.push_back(strMD5);
}

CReadOnlyCache::~CReadOnlyCache() {
    if (m_bStarted)
        (void)LocalCacheUnInit();
}

bool CReadOnlyCache::Start(const CInstallRoot &root, std::string &strError) {
    if (!root.IsSetUp()) {
        strError = "there is no cache in " + EscapeName(root.Path()) + " yet; the first scan makes one";
        return false;
    }
    const uint32_t uCode = LocalCacheInitEx();
    m_bStarted = uCode == TARN_OK;
    if (!m_bStarted)
        strError = StartFailure(root, uCode);
    return m_bStarted;
}

std::string PendingText(const CInstallRoot &root) {
    if (Exists(root.EngineMarker()))
        return "an engine update is pending; the next scan drops this engine's verdicts";
    if (IsListPending(root))
        return "withdrawn digests are pending; the next scan drops their verdicts";
    return {};
}
