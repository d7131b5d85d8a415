#include "tools/scan/walker.h"

#include "tools/text/path_argument.h"
#include "tools/text/path_lines.h"
#include "tools/text/text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <dirent.h>
#include <fnmatch.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <system_error>

namespace {

constexpr size_t kBatch = 64; // files that go to the queue at once
constexpr dev_t kNoDevice = ~dev_t{0};
// Each folder on the way down is kept open with its path, so memory grows with the square of the depth: a user could
// make a tree that is too much for any machine.
constexpr size_t kLongestPath = size_t{16} * 1024; // bytes, four times what the system takes at once

struct _CloseFolder {
    void operator()(DIR *pFolder) const { (void)closedir(pFolder); }
};

// File systems that show the kernel's state as files: reading there can block, have side effects or never end.
bool IsKernelFileSystem(const struct statfs &info) {
    constexpr std::array<uint64_t, 13> kMagics = {
        PROC_SUPER_MAGIC,    SYSFS_MAGIC,      DEBUGFS_MAGIC, TRACEFS_MAGIC,  CGROUP_SUPER_MAGIC,
        CGROUP2_SUPER_MAGIC, SECURITYFS_MAGIC, BPF_FS_MAGIC,  PSTOREFS_MAGIC, EFIVARFS_MAGIC,
        DEVPTS_SUPER_MAGIC,  SELINUX_MAGIC,    BINFMTFS_MAGIC};
    return std::find(kMagics.begin(), kMagics.end(), static_cast<uint64_t>(info.f_type)) != kMagics.end();
}

bool IsInKernelFileSystem(int fd) {
    struct statfs info = {};
    return fstatfs(fd, &info) == 0 && IsKernelFileSystem(info);
}

bool IsInKernelFileSystem(const std::string &strPath) {
    struct statfs info = {};
    return statfs(strPath.c_str(), &info) == 0 && IsKernelFileSystem(info);
}

bool IsKernelPath(const std::string &strPath) {
    return strPath == "/proc" || strPath == "/sys";
}

} // namespace

bool CTreeWalker::IsExcluded(const std::string &strPath, std::string_view name) const {
    return std::any_of(m_vecExclude.begin(), m_vecExclude.end(), [&](const std::string &strGlob) {
        return fnmatch(strGlob.c_str(), strPath.c_str(), 0) == 0 ||
               fnmatch(strGlob.c_str(), std::string(name).c_str(), 0) == 0;
    });
}

// An argument is excluded by any component of its path, as it would be in a walk from the top.
bool CTreeWalker::IsExcludedArgument(const std::string &strPath) const {
    if (m_vecExclude.empty()) {
        return false;
    }
    for (size_t nStart = 1; nStart < strPath.size();) {
        const size_t nEnd = std::min(strPath.find('/', nStart), strPath.size());
        if (IsExcluded(strPath.substr(0, nEnd), std::string_view(strPath).substr(nStart, nEnd - nStart))) {
            return true;
        }
        nStart = nEnd + 1;
    }
    return false;
}

std::string CTreeWalker::_PendingFolder::Path() const {
    return pParent == nullptr ? strArgumentPath : pParent->PathOf(strName);
}

void CTreeWalker::TellProblem(const std::string &strPath, int iError) const {
    m_listener.onProblem(strPath, std::generic_category().message(iError));
}

bool CTreeWalker::PushFile(_ScanJob job) {
    m_vecBatch.push_back(std::move(job));
    return m_vecBatch.size() < kBatch || m_listener.onFiles(m_vecBatch);
}

bool CTreeWalker::Walk(const std::string &strArgument) {
    return WalkArgument(strArgument) && m_listener.onFiles(m_vecBatch);
}

bool CTreeWalker::WalkArgument(const std::string &strArgument) {
    _PathArgument argument = {};
    if (!ResolveArgument(strArgument, argument)) {
        TellProblem(strArgument, errno);
        return true;
    }
    struct stat status = {};
    if (lstat(argument.strOpen.c_str(), &status) != 0) {
        TellProblem(argument.strPath, errno);
        return true;
    }
    if (argument.bLink) {
        m_listener.onNote(EscapeName(strArgument) + " is a link; scanning " + EscapeName(argument.strPath));
    }
    if (IsExcludedArgument(argument.strPath)) {
        m_listener.onSkipped(ESkipped::Excluded);
        return true;
    }
    if (S_ISDIR(status.st_mode)) {
        return WalkTree({nullptr, argument.strOpen, argument.strPath, kNoDevice});
    }
    if (S_ISREG(status.st_mode) && !IsInKernelFileSystem(argument.strOpen)) {
        return PushFile({nullptr, argument.strOpen, argument.strPath});
    }
    m_listener.onNote(EscapeName(argument.strPath) + " is not an ordinary file; skipped");
    m_listener.onSkipped(S_ISREG(status.st_mode) ? ESkipped::KernelFiles : ESkipped::NotAFile);
    return true;
}

void CTreeWalker::WalkList(const std::string &strList, char cSeparator) {
    const auto walk = [this](const std::string &strPath) { return strPath.empty() || Walk(strPath); };
    std::string strError;
    if (!ReadPathLines(strList, cSeparator, m_bStop, walk, strError)) {
        m_listener.onProblem(strList == "-" ? "standard input" : strList, strError);
    }
}

// Depth first with a stack of its own, so that a deep tree costs memory and not the thread's stack.
bool CTreeWalker::WalkTree(_PendingFolder root) {
    std::vector<_PendingFolder> vecPending;
    vecPending.push_back(std::move(root));
    while (!vecPending.empty()) {
        const _PendingFolder next = std::move(vecPending.back());
        vecPending.pop_back();
        if (m_bStop.load(std::memory_order_relaxed) || !ReadFolder(next, vecPending)) {
            return false;
        }
    }
    return true;
}

bool CTreeWalker::ReadFolder(const _PendingFolder &pending, std::vector<_PendingFolder> &vecPending) {
    const std::string strPath = pending.Path();
    if (strPath.size() > kLongestPath) {
        TellProblem(strPath, ENAMETOOLONG);
        return true;
    }
    const int fdParent = pending.pParent == nullptr ? AT_FDCWD : pending.pParent->descriptor.Get();
    auto pFolder = std::make_shared<_OpenFolder>();
    pFolder->descriptor = OpenForReading(fdParent, pending.strName.c_str(), ELastLink::Refuse, O_DIRECTORY);
    pFolder->strPath = strPath;
    struct stat status = {};
    if (!pFolder->descriptor.IsOpen() || fstat(pFolder->descriptor.Get(), &status) != 0) {
        // A folder that was removed, or replaced by something else, since its parent was read is no error.
        const bool bVanished = errno == ENOENT || errno == ENOTDIR || errno == ELOOP;
        if (pending.pParent == nullptr || !bVanished) {
            TellProblem(strPath, errno);
        }
        return true;
    }
    return IsSkipped(pending, *pFolder, status) || ListFolder(pFolder, status, vecPending);
}

bool CTreeWalker::IsSkipped(const _PendingFolder &pending, const _OpenFolder &folder, const struct stat &status) const {
    const bool bOwn = m_ownFiles.IsOwnFolder(status);
    const bool bKernel = IsKernelPath(folder.strPath) ||
                         (status.st_dev != pending.parentDevice && IsInKernelFileSystem(folder.descriptor.Get()));
    if (!bOwn && !bKernel) {
        return false;
    }
    if (pending.pParent == nullptr) {
        m_listener.onNote(EscapeName(folder.strPath) + " holds no files to scan; skipped");
    }
    m_listener.onSkipped(bOwn ? ESkipped::OwnFiles : ESkipped::KernelFiles);
    return true;
}

bool CTreeWalker::ListFolder(const std::shared_ptr<const _OpenFolder> &pFolder, const struct stat &status,
                             std::vector<_PendingFolder> &vecPending) {
    // The listing needs a descriptor of its own: closing it must not close the one that the jobs use.
    CDescriptor listing(fcntl(pFolder->descriptor.Get(), F_DUPFD_CLOEXEC, 0));
    const std::unique_ptr<DIR, _CloseFolder> pEntries(listing.IsOpen() ? fdopendir(listing.Get()) : nullptr);
    if (pEntries == nullptr) {
        TellProblem(pFolder->strPath, errno);
        return true;
    }
    (void)listing.Release(); // the listing owns it now
    for (errno = 0; const dirent *pEntry = readdir(pEntries.get()); errno = 0) {
        if (!TakeEntry(pFolder, status, pEntry->d_name, pEntry->d_type, vecPending)) {
            return false;
        }
    }
    if (errno != 0) {
        TellProblem(pFolder->strPath, errno);
    }
    return true;
}

bool CTreeWalker::TakeEntry(const std::shared_ptr<const _OpenFolder> &pFolder, const struct stat &folderStatus,
                            const char *pszName, unsigned char type, std::vector<_PendingFolder> &vecPending) {
    const std::string_view name = pszName;
    if (name == "." || name == "..") {
        return true;
    }
    _ScanJob job = {pFolder, std::string(name), {}};
    if (type == DT_UNKNOWN) {
        struct stat status = {};
        if (fstatat(job.FolderFd(), pszName, &status, AT_SYMLINK_NOFOLLOW) != 0) {
            return true; // gone again
        }
        type = static_cast<unsigned char>(IFTODT(status.st_mode));
    }
    const bool bExcluded = !m_vecExclude.empty() && IsExcluded(job.Path(), name);
    if (bExcluded || (type != DT_DIR && type != DT_REG)) {
        m_listener.onSkipped(bExcluded ? ESkipped::Excluded : type == DT_LNK ? ESkipped::Link : ESkipped::NotAFile);
        return !m_bStop.load(std::memory_order_relaxed);
    }
    if (type == DT_REG) {
        return PushFile(std::move(job));
    }
    vecPending.push_back({pFolder, std::string(name), {}, folderStatus.st_dev});
    return true;
}
