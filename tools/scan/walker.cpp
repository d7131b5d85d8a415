#include "tools/scan/walker.h"

#include "tools/text.h"
#include "tools/text/path_argument.h"
#include "tools/text/path_lines.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <dirent.h>
#include <fnmatch.h>
#include <linux/magic.h>
#include <sys/vfs.h>

namespace {

constexpr size_t kBatch = 64; // files that go to the queue at once
constexpr dev_t kNoDevice = ~dev_t{0};

struct _CloseFolder {
    void operator()(DIR *pFolder) const { (void)closedir(pFolder); }
};

// File systems that show the kernel's state as files: reading there can block, have side effects or never end.
bool IsKernelFileSystem(const struct statfs &info) {
    constexpr std::array<uint64_t, 13> magics = {
        PROC_SUPER_MAGIC,    SYSFS_MAGIC,      DEBUGFS_MAGIC, TRACEFS_MAGIC,  CGROUP_SUPER_MAGIC,
        CGROUP2_SUPER_MAGIC, SECURITYFS_MAGIC, BPF_FS_MAGIC,  PSTOREFS_MAGIC, EFIVARFS_MAGIC,
        DEVPTS_SUPER_MAGIC,  SELINUX_MAGIC,    BINFMTFS_MAGIC};
    return std::find(magics.begin(), magics.end(), static_cast<uint64_t>(info.f_type)) != magics.end();
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
    for (size_t start = 1; start < strPath.size();) {
        const size_t end = std::min(strPath.find('/', start), strPath.size());
        if (IsExcluded(strPath.substr(0, end), std::string_view(strPath).substr(start, end - start))) {
            return true;
        }
        start = end + 1;
    }
    return false;
}

bool CTreeWalker::PushFile(_ScanJob job) {
    m_vecBatch.push_back(std::move(job));
    return m_vecBatch.size() < kBatch || PushBatch();
}

bool CTreeWalker::PushBatch() {
    m_counters.nFound += m_vecBatch.size();
    return m_queue.Push(m_vecBatch);
}

bool CTreeWalker::Walk(const std::string &strArgument) {
    return WalkArgument(strArgument) && PushBatch();
}

bool CTreeWalker::WalkArgument(const std::string &strArgument) {
    _PathArgument argument;
    if (!ResolveArgument(strArgument, argument)) {
        m_report.Problem(strArgument, errno);
        return true;
    }
    struct stat status = {};
    if (lstat(argument.strOpen.c_str(), &status) != 0) {
        m_report.Problem(argument.strPath, errno);
        return true;
    }
    if (argument.bLink) {
        m_report.Note(EscapeName(strArgument) + " is a link; scanning " + EscapeName(argument.strPath));
    }
    if (IsExcludedArgument(argument.strPath)) {
        Skip(ESkipped::Excluded);
        return true;
    }
    if (S_ISDIR(status.st_mode)) {
        return WalkTree({nullptr, argument.strOpen, argument.strPath, kNoDevice});
    }
    if (S_ISREG(status.st_mode) && !IsInKernelFileSystem(argument.strOpen)) {
        return PushFile({nullptr, argument.strOpen, argument.strPath});
    }
    m_report.Note(EscapeName(argument.strPath) + " is not an ordinary file; skipped");
    Skip(S_ISREG(status.st_mode) ? ESkipped::KernelFiles : ESkipped::NotAFile);
    return true;
}

void CTreeWalker::WalkList(const std::string &strList, char cSeparator) {
    CPathLines lines(strList, cSeparator, m_stop);
    std::string strPath;
    while (lines.Next(strPath)) {
        if (!strPath.empty() && !Walk(strPath)) {
            return;
        }
    }
    if (lines.Error() != 0) {
        m_report.Problem(strList == "-" ? "standard input" : strList, lines.Error());
    }
}

// Depth first with a stack of its own, so that a deep tree costs memory and not the thread's stack.
bool CTreeWalker::WalkTree(_PendingFolder root) {
    std::vector<_PendingFolder> stack;
    stack.push_back(std::move(root));
    while (!stack.empty()) {
        const _PendingFolder next = std::move(stack.back());
        stack.pop_back();
        if (m_stop.load(std::memory_order_relaxed) || !ReadFolder(next, stack)) {
            return false;
        }
    }
    return true;
}

bool CTreeWalker::ReadFolder(const _PendingFolder &pending, std::vector<_PendingFolder> &stack) {
    const int parentFd = pending.pParent == nullptr ? AT_FDCWD : pending.pParent->descriptor.Get();
    auto pFolder = std::make_shared<_OpenFolder>();
    pFolder->descriptor = OpenForReading(parentFd, pending.strName.c_str(), ELastLink::Refuse, O_DIRECTORY);
    pFolder->strPath = pending.strPath;
    struct stat status = {};
    if (!pFolder->descriptor.IsOpen() || fstat(pFolder->descriptor.Get(), &status) != 0) {
        // A folder that was removed, or replaced by something else, since its parent was read is no error.
        const bool bVanished = errno == ENOENT || errno == ENOTDIR || errno == ELOOP;
        if (pending.pParent == nullptr || !bVanished) {
            m_report.Problem(pending.strPath, errno);
        }
        return true;
    }
    const bool bOwn = m_ownFiles.IsOwnFolder(status);
    const bool bKernel = IsKernelPath(pending.strPath) ||
                         (status.st_dev != pending.parentDevice && IsInKernelFileSystem(pFolder->descriptor.Get()));
    if (bOwn || bKernel) {
        if (pending.pParent == nullptr) {
            m_report.Note(EscapeName(pending.strPath) + " holds no files to scan; skipped");
        }
        Skip(bOwn ? ESkipped::OwnFiles : ESkipped::KernelFiles);
        return true;
    }
    // The listing needs a descriptor of its own: closing it must not close the one the jobs use.
    CDescriptor listing(fcntl(pFolder->descriptor.Get(), F_DUPFD_CLOEXEC, 0));
    const std::unique_ptr<DIR, _CloseFolder> pEntries(listing.IsOpen() ? fdopendir(listing.Get()) : nullptr);
    if (pEntries == nullptr) {
        m_report.Problem(pending.strPath, errno);
        return true;
    }
    (void)listing.Release(); // the listing owns it now
    for (errno = 0; const dirent *pEntry = readdir(pEntries.get()); errno = 0) {
        if (!TakeEntry(pFolder, status, pEntry->d_name, pEntry->d_type, stack)) {
            return false;
        }
    }
    if (errno != 0) {
        m_report.Problem(pending.strPath, errno);
    }
    return true;
}

bool CTreeWalker::TakeEntry(const std::shared_ptr<const _OpenFolder> &pFolder, const struct stat &folderStatus,
                            const char *pszName, unsigned char type, std::vector<_PendingFolder> &stack) {
    const std::string_view name = pszName;
    if (name == "." || name == "..") {
        return true;
    }
    _ScanJob job{pFolder, std::string(name), {}};
    if (type == DT_UNKNOWN) {
        struct stat status = {};
        if (fstatat(job.FolderFd(), pszName, &status, AT_SYMLINK_NOFOLLOW) != 0) {
            return true; // gone again
        }
        type = static_cast<unsigned char>(IFTODT(status.st_mode));
    }
    const bool bExcluded = !m_vecExclude.empty() && IsExcluded(job.Path(), name);
    if (bExcluded || (type != DT_DIR && type != DT_REG)) {
        Skip(bExcluded ? ESkipped::Excluded : type == DT_LNK ? ESkipped::Link : ESkipped::NotAFile);
        return !m_stop.load(std::memory_order_relaxed);
    }
    if (type == DT_REG) {
        return PushFile(std::move(job));
    }
    stack.push_back({pFolder, std::string(name), job.Path(), folderStatus.st_dev});
    return true;
}
