#include "tools/cache/cache_use.h"

#include "tools/text.h"

#include <tarncache.h>

#include <array>
#include <cstdio>

CCacheUse::~CCacheUse() {
    if (m_bStarted) {
        (void)LocalCacheUnInit();
    }
}

bool CCacheUse::Start(const CInstallRoot &root, std::string &strError) {
    if (!root.IsSetUp()) {
        strError = "there is no cache in " + EscapeName(root.Path()) + " yet; the first scan makes one";
        return false;
    }
    const uint32_t ulCode = LocalCacheInitEx();
    m_bStarted = ulCode == TARN_OK;
    if (!m_bStarted) {
        strError = StartFailureText(root, ulCode);
    }
    return m_bStarted;
}

bool CountRecords(uint32_t &ulRecords, std::string &strError) {
    _LOCAL_CACHE_STATISTIC statistic = {};
    if (LocalCacheGetStatistic(&statistic) != TARN_OK) {
        strError = "cannot count the records";
        return false;
    }
    ulRecords = statistic.ulCacheSize;
    return true;
}

std::string StartFailureText(const CInstallRoot &root, uint32_t ulCode) {
    std::array<char, 16> code = {};
    (void)std::snprintf(code.data(), code.size(), "0x%08x", ulCode);
    const std::string strFolder = EscapeName(root.CacheFolder());
    return std::string("the cache does not start (") + code.data() + "): " + strFolder +
           " cannot be written to, its disk is nearly full (diskthreshold in " + EscapeName(root.ConfigFile()) +
           "), its database is in use by another process, or it is damaged: then delete " + strFolder +
           "/morcache.db while nothing uses it, the files are scanned once more; TARN_LOG_LEVEL=debug tells which";
}

std::string PendingText(const CInstallRoot &root) {
    if (Exists(root.EngineMarker())) {
        return "an engine update is pending; the next scan drops this engine's verdicts";
    }
    if (root.IsListPending()) {
        return "withdrawn digests are pending; the next scan drops their verdicts";
    }
    return {};
}
