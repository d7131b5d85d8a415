#include "tools/scan/worker.h"

#include "support/descriptor.h"

#include <tarncache.h>

#include <cerrno>
#include <ctime>
#include <system_error>

namespace {

constexpr int64_t kSettleTime = 2; // seconds

bool IsSameTime(const timespec &first, const timespec &second) {
    return first.tv_sec == second.tv_sec && first.tv_nsec == second.tv_nsec;
}

bool IsUnchanged(const struct stat &before, const struct stat &after) {
    return before.st_dev == after.st_dev && before.st_ino == after.st_ino && before.st_size == after.st_size &&
           IsSameTime(before.st_mtim, after.st_mtim) && IsSameTime(before.st_ctim, after.st_ctim);
}

// The cache keeps a change time in whole seconds: a file that changed just now can change again without the cache
// being able to tell. A time in the future says that the clocks disagree, which is no better.
bool IsTooNew(const struct stat &status, const timespec &now) {
    const timespec &changed = status.st_ctim;
    return changed.tv_sec > now.tv_sec - kSettleTime ||
           (changed.tv_sec == now.tv_sec - kSettleTime && changed.tv_nsec > now.tv_nsec);
}

} // namespace

void CScanWorker::Run() {
    for (std::vector<_ScanJob> vecJobs = m_queue.Pop(); !vecJobs.empty(); vecJobs = m_queue.Pop()) {
        for (const _ScanJob &job : vecJobs) {
            if (m_shared.bStop.load(std::memory_order_relaxed)) {
                return;
            }
            LookAt(job);
        }
    }
}

void CScanWorker::LookAt(const _ScanJob &job) {
    _FileReport file = {};
    file.strPath = job.Path();
    timespec now = {}; // taken first: a change after it then shows as one in the future
    (void)clock_gettime(CLOCK_REALTIME, &now);
    _StatusBefore before = {};
    if (fstatat(job.FolderFd(), job.strName.c_str(), &before.status, AT_SYMLINK_NOFOLLOW) != 0) {
        // Files come and go while a tree is walked; only one that was asked for by name is missed.
        if (job.pFolder == nullptr || errno != ENOENT) {
            m_shared.report.Problem(file.strPath, std::generic_category().message(errno));
        }
        return;
    }
    const bool bOwn = m_shared.ownFiles.IsOwnFile(file.strPath, before.status);
    if (bOwn || !S_ISREG(before.status.st_mode)) {
        m_shared.counters.CountSkipped(bOwn ? ESkipped::OwnFiles : ESkipped::NotAFile);
        return;
    }
    before.bTooNew = IsTooNew(before.status, now);
    file.ullSize = static_cast<uint64_t>(before.status.st_size);
    if (!AskCache(before.status, file)) {
        ScanFile(job, before, file);
    }
    Count(file);
    m_shared.report.File(file);
}

bool CScanWorker::AskCache(const struct stat &status, _FileReport &file) const {
    if (!m_shared.cache.IsInUse() || file.strPath.size() >= TARN_PATH_SIZE) {
        return false;
    }
    _FileVerdict verdict = {};
    file.bFromCache = m_shared.cache.Find(file.strPath, status, verdict);
    if (file.bFromCache) {
        file.verdict = verdict;
    }
    return file.bFromCache;
}

void CScanWorker::ScanFile(const _ScanJob &job, const _StatusBefore &before, _FileReport &file) {
    CDescriptor descriptor;
    struct stat opened = {};
    if (!Open(job, file.strPath, descriptor, opened, file.strError)) {
        file.verdict.eVerdict = EVerdict::Error;
        file.eNotCached = ENotCached::ScanError;
    } else {
        ReadAndScan(descriptor.Get(), opened, file);
        file.eNotCached = ReasonNotToAdd(job, descriptor.Get(), before, file);
        if (file.eNotCached == ENotCached::None && m_shared.cache.IsInUse() &&
            !m_shared.cache.Add(file.strPath, before.status, file.verdict)) {
            file.eNotCached = ENotCached::Refused;
        }
    }
    if (!m_shared.cache.IsInUse()) {
        file.eNotCached = ENotCached::None; // nothing to give a reason for
    }
}

bool CScanWorker::Open(const _ScanJob &job, const std::string &strPath, CDescriptor &descriptor, struct stat &opened,
                       std::string &strError) const {
    descriptor = OpenForReading(job.FolderFd(), job.strName.c_str(), ELastLink::Refuse);
    if (!descriptor.IsOpen() || fstat(descriptor.Get(), &opened) != 0) {
        strError = std::generic_category().message(errno);
        return false;
    }
    if (m_shared.ownFiles.IsOwnFile(strPath, opened)) {
        (void)descriptor.Release(); // left open on purpose: closing it would drop this process's locks on the file
        strError = "replaced by a file of the cache while it was opened";
        return false;
    }
    if (!S_ISREG(opened.st_mode)) {
        strError = "no longer a regular file";
        return false;
    }
    return true;
}

void CScanWorker::ReadAndScan(int fd, const struct stat &opened, _FileReport &file) {
    file.ullSize = static_cast<uint64_t>(opened.st_size);
    if (file.ullSize > m_pEngine->MaxFileSize()) {
        file.verdict.eVerdict = EVerdict::LimitExceeded; // the engine would not look inside either
        return;
    }
    std::string strMD5;
    if ((m_shared.bWantDigest && !m_digest.Read(fd, file.ullSize, m_shared.bStop, strMD5)) ||
        lseek(fd, 0, SEEK_SET) != 0) {
        file.verdict.eVerdict = m_shared.bStop.load() ? EVerdict::Interrupted : EVerdict::Error;
        file.strError = std::generic_category().message(errno);
        return;
    }
    file.verdict = m_pEngine->ScanDescriptor(fd, file.ullSize, m_shared.bStop, file.strError);
    file.verdict.strMD5 = strMD5;
}

ENotCached CScanWorker::ReasonNotToAdd(const _ScanJob &job, int fd, const _StatusBefore &before,
                                       const _FileReport &file) const {
    switch (file.verdict.eVerdict) {
    case EVerdict::Error:
        return ENotCached::ScanError;
    case EVerdict::TimedOut:
        return ENotCached::TimedOut;
    case EVerdict::LimitExceeded:
        return ENotCached::LimitExceeded;
    case EVerdict::Interrupted:
        return ENotCached::Interrupted;
    case EVerdict::Clean:
    case EVerdict::Infected:
        break;
    }
    struct stat opened = {};
    struct stat named = {};
    if (fstat(fd, &opened) != 0 || !IsUnchanged(before.status, opened) ||
        fstatat(job.FolderFd(), job.strName.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0 ||
        !IsUnchanged(before.status, named)) {
        return ENotCached::ChangedDuringScan;
    }
    if (file.strPath.size() >= TARN_PATH_SIZE) {
        return ENotCached::PathTooLong;
    }
    return before.bTooNew ? ENotCached::TooNew : ENotCached::None;
}

void CScanWorker::Count(const _FileReport &file) {
    _ScanCounters &counters = m_shared.counters;
    const EVerdict eVerdict = file.verdict.eVerdict;
    if (file.eNotCached != ENotCached::None) {
        counters.CountNotCached(file.eNotCached);
    }
    if (eVerdict == EVerdict::Interrupted) {
        return;
    }
    ++counters.nFiles;
    if (file.bFromCache) {
        ++counters.nFromCache;
        counters.ullBytesNotRead += file.ullSize;
    } else if (eVerdict != EVerdict::Error) {
        ++counters.nScanned;
        counters.ullBytesRead += file.ullSize <= m_pEngine->MaxFileSize() ? file.ullSize : 0;
    }
    counters.nInfected += eVerdict == EVerdict::Infected ? 1 : 0;
    counters.nErrors += eVerdict == EVerdict::Error || eVerdict == EVerdict::TimedOut ? 1 : 0;
    counters.nTimedOut += eVerdict == EVerdict::TimedOut ? 1 : 0;
    counters.nLimitExceeded += eVerdict == EVerdict::LimitExceeded ? 1 : 0;
}
