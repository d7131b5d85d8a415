#include "tools/cache/cache_use.h"

#include "tools/text/text.h"

#include <tarncache.h>

namespace {

std::string UnreadableText(const CInstallRoot &root, uint32_t ulCode) {
    return "the cache in " + EscapeName(root.CacheFolder()) + " cannot be read (" + LocalCacheErrorText(ulCode) +
           "): it belongs to another user or is damaged; TARN_LOG_LEVEL=debug tells which";
}

} // namespace

CCacheUse::~CCacheUse() {
    if (m_bStarted) {
        (void)LocalCacheUnInit();
    }
}

bool CCacheUse::Start(const CInstallRoot &root, ECacheUse eUse, std::string &strError) {
    const bool bQuestions = eUse == ECacheUse::Questions;
    uint32_t ulCode = TARN_NOT_CACHED;
    if (root.IsSetUp()) {
        root.ExportToLibrary();
        ulCode = bQuestions ? LocalCacheInitReader() : LocalCacheInitEx();
    }
    m_bStarted = ulCode == TARN_OK;
    if (ulCode == TARN_NOT_CACHED) {
        strError = "there is no cache in " + EscapeName(root.Path()) + " yet; the first scan makes one";
    } else if (!m_bStarted) {
        strError = bQuestions ? UnreadableText(root, ulCode) : StartFailureText(root, ulCode);
    }
    return m_bStarted;
}

std::string StartFailureText(const CInstallRoot &root, uint32_t ulCode) {
    const std::string strFolder = EscapeName(root.CacheFolder());
    return std::string("the cache does not start (") + LocalCacheErrorText(ulCode) + "): " + strFolder +
           " cannot be written to, its disk is nearly full (diskthreshold in " + EscapeName(root.ConfigFile()) +
           "), its database is in use by another process, or it is damaged: then delete " + strFolder + "/" +
           kDatabaseName + " while nothing uses it, the files are scanned once more; TARN_LOG_LEVEL=debug tells which";
}

std::string PendingText(const CInstallRoot &root) {
    if (root.IsEnginePending()) {
        return "an engine update is pending; the next scan drops this engine's verdicts";
    }
    if (root.IsListPending()) {
        return "withdrawn digests are pending; the next scan drops their verdicts";
    }
    return {};
}
