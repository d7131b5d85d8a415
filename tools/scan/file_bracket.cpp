#include "tools/scan/file_bracket.h"

namespace {

bool IsSameTime(const timespec &first, const timespec &second) {
    return first.tv_sec == second.tv_sec && first.tv_nsec == second.tv_nsec;
}

// What keeps a verdict from being remembered, whatever the file was doing.
ENotCached ReasonOf(EVerdict eVerdict) {
    switch (eVerdict) {
    case EVerdict::TimedOut:
        return ENotCached::TimedOut;
    case EVerdict::LimitExceeded:
        return ENotCached::LimitExceeded;
    case EVerdict::Interrupted:
        return ENotCached::Interrupted;
    case EVerdict::Clean:
    case EVerdict::Infected:
        return ENotCached::None;
    default:
        return ENotCached::ScanError;
    }
}

ENotCached ReasonOf(uint32_t ulReason) {
    switch (ulReason) {
    case TARN_REMEMBER_YES:
        return ENotCached::None;
    case TARN_REMEMBER_WRITTEN:
        return ENotCached::Written;
    case TARN_REMEMBER_FILE_SYSTEM:
        return ENotCached::FileSystem;
    case TARN_REMEMBER_UNKNOWN:
        return ENotCached::WritersUnknown;
    case TARN_REMEMBER_CHANGED:
        return ENotCached::ChangedDuringScan;
    case TARN_REMEMBER_RECENT:
        return ENotCached::TooNew;
    default:
        return ENotCached::Refused;
    }
}

} // namespace

bool CFileBracket::Begin(int fd) {
    m_fd = fd;
    m_bWatched = m_cache.BeginScan(fd, m_scan);
    return m_bWatched || fstat(fd, &m_scan.status) == 0;
}

ENotCached CFileBracket::Finish(const std::string &strPath, const _FileVerdict &verdict) {
    const ENotCached eReason = ReasonOf(verdict.eVerdict);
    if (eReason == ENotCached::None) {
        const bool bFits = strPath.size() < TARN_PATH_SIZE;
        if (m_bWatched && bFits) {
            return Remember(strPath, verdict);
        }
        return HasChanged() ? ENotCached::ChangedDuringScan : bFits ? ENotCached::Refused : ENotCached::PathTooLong;
    }
    // The cache is not asked, as it would remember the verdict.
    return eReason == ENotCached::LimitExceeded && HasChanged() ? ENotCached::ChangedDuringScan : eReason;
}

ENotCached CFileBracket::Remember(const std::string &strPath, const _FileVerdict &verdict) {
    m_scan.ulAllow = m_ulAllow;
    const ENotCached eReason = ReasonOf(m_cache.FinishScan(m_scan, strPath, verdict));
    // A call that failed may not have come as far as the file.
    return eReason == ENotCached::Refused && HasChanged() ? ENotCached::ChangedDuringScan : eReason;
}

bool CFileBracket::HasChanged() const {
    const struct stat &before = m_scan.status;
    struct stat after = {};
    return fstat(m_fd, &after) != 0 || before.st_size != after.st_size || !IsSameTime(before.st_mtim, after.st_mtim) ||
           !IsSameTime(before.st_ctim, after.st_ctim);
}
