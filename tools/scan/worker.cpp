#include "tools/scan/worker.h"

#include "support/descriptor.h"

#include <tarncache.h>

#include <cerrno>
#include <system_error>

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
    struct stat status = {};
    if (fstatat(job.FolderFd(), job.strName.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        // Files come and go while a tree is walked; only one that was asked for by name is missed.
        if (job.pFolder == nullptr || errno != ENOENT) {
            m_shared.report.Problem(file.strPath, std::generic_category().message(errno));
        }
        return;
    }
    const bool bOwn = m_shared.ownFiles.IsOwnFile(file.strPath, status);
    if (bOwn || !S_ISREG(status.st_mode)) {
        m_shared.counters.CountSkipped(bOwn ? ESkipped::OwnFiles : ESkipped::NotAFile);
        return;
    }
    file.ullSize = static_cast<uint64_t>(status.st_size);
    if (!AskCache(status, file)) {
        ScanFile(job, file);
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

// The name may lead to another file than the one the cache was asked for, and by now to a third, when names or folders
// are exchanged meanwhile. What is scanned is the open file, and it is remembered with its own status under the path of
// the walk, whatever lies there now: with "protect" the record answers only while the path leads to this very inode
// with this size and change time, so for these contents. Any other file there misses. Another link to this inode has a
// record of its own, since the path counts too.
void CScanWorker::ScanFile(const _ScanJob &job, _FileReport &file) {
    CDescriptor descriptor;
    CFileBracket bracket(m_shared.cache, m_shared.ulAllow);
    if (!Open(job, file.strPath, descriptor, bracket, file.strError)) {
        file.verdict.eVerdict = EVerdict::Error;
        file.eNotCached = ENotCached::ScanError;
    } else {
        ReadAndScan(descriptor.Get(), bracket.Status(), file);
        file.eNotCached = bracket.Finish(file.strPath, file.verdict);
        file.bChanged = file.eNotCached == ENotCached::ChangedDuringScan;
    }
    if (file.bChanged) {
        file.verdict.strMD5.clear();
        file.verdict.eVerdict = file.verdict.eVerdict == EVerdict::Infected ? EVerdict::Infected : EVerdict::Changed;
    }
    if (!m_shared.cache.IsInUse()) {
        file.eNotCached = ENotCached::None; // nothing to give a reason for
    }
}

bool CScanWorker::Open(const _ScanJob &job, const std::string &strPath, CDescriptor &descriptor, CFileBracket &bracket,
                       std::string &strError) const {
    struct stat opened = {};
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
    if (!bracket.Begin(descriptor.Get())) {
        strError = std::generic_category().message(errno);
        return false;
    }
    return true;
}

void CScanWorker::ReadAndScan(int fd, const struct stat &status, _FileReport &file) {
    file.ullSize = static_cast<uint64_t>(status.st_size);
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
    const bool bChanged = eVerdict == EVerdict::Changed;
    counters.nErrors += eVerdict == EVerdict::Error || eVerdict == EVerdict::TimedOut || bChanged ? 1 : 0;
    counters.nChanged += bChanged ? 1 : 0;
    counters.nTimedOut += eVerdict == EVerdict::TimedOut ? 1 : 0;
    counters.nLimitExceeded += eVerdict == EVerdict::LimitExceeded ? 1 : 0;
}
