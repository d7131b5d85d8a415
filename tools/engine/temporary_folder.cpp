#include "tools/engine/temporary_folder.h"

#include "tools/text/text.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <linux/magic.h>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace {

constexpr const char *kMemoryFolder = "/dev/shm";
constexpr const char *kDiskFolder = "/tmp";
constexpr std::string_view kName = "tarncache-unpacked."; // nobody else names a folder so: it may be removed
constexpr std::string_view kRandomName = "XXXXXX";
constexpr uint64_t kReserve = 4; // times the most that the engine may unpack
constexpr uint64_t kLeastFreeBytes = 1u << 20;
constexpr uint64_t kLeastFreeFiles = 64;
constexpr int kAttempts = 8;

// Bytes that the machine can still give.
uint64_t AvailableMemory() {
    std::ifstream info("/proc/meminfo");
    std::string strName;
    uint64_t ullKiB = 0;
    std::string strUnit;
    while (info >> strName >> ullKiB && std::getline(info, strUnit)) {
        if (strName == "MemAvailable:") {
            return ullKiB * 1024;
        }
    }
    return 0;
}

// The smallest limit of a control group and of all groups above it.
uint64_t SmallestLimit(const std::string &strBase, std::string strGroup, const char *pszFile) {
    for (uint64_t ullLimit = UINT64_MAX;;) {
        std::ifstream limit(strBase + strGroup + "/" + pszFile);
        uint64_t ullValue = 0;
        if (limit >> ullValue) {
            ullLimit = std::min(ullLimit, ullValue);
        }
        const size_t nSlash = strGroup.rfind('/');
        if (nSlash == std::string::npos) {
            return ullLimit;
        }
        strGroup.resize(nSlash);
    }
}

// What the control groups allow this process; a file in memory counts against it.
uint64_t MemoryLimit() {
    uint64_t ullLimit = UINT64_MAX;
    std::ifstream groups("/proc/self/cgroup");
    for (std::string strLine; std::getline(groups, strLine);) {
        const size_t nSlash = strLine.find(":/");
        const std::string strGroup = nSlash == std::string::npos ? "" : strLine.substr(nSlash + 1);
        if (strLine.starts_with("0::")) {
            ullLimit = std::min(ullLimit, SmallestLimit("/sys/fs/cgroup", strGroup, "memory.max"));
        } else if (strLine.find("memory") < nSlash) {
            ullLimit = std::min(ullLimit, SmallestLimit("/sys/fs/cgroup/memory", strGroup, "memory.limit_in_bytes"));
        }
    }
    return ullLimit;
}

bool FitsInMemory(uint64_t ullMostBytes) {
    struct statfs info = {};
    if (statfs(kMemoryFolder, &info) != 0 || info.f_type != TMPFS_MAGIC || access(kMemoryFolder, W_OK) != 0) {
        return false;
    }
    const uint64_t ullFree = static_cast<uint64_t>(info.f_bavail) * static_cast<uint64_t>(info.f_bsize);
    return ullMostBytes != 0 && std::min({ullFree, AvailableMemory(), MemoryLimit()}) / kReserve >= ullMostBytes;
}

CDescriptor OpenFolder(const std::string &strPath) {
    return CDescriptor(open(strPath.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

bool IsOurName(const std::string &strName) {
    return strName.size() == kName.size() + kRandomName.size() && strName.starts_with(kName);
}

void RemoveAbandoned(const std::string &strParent) {
    std::error_code error;
    auto entry = std::filesystem::directory_iterator(strParent, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        if (!IsOurName(entry->path().filename().string())) {
            continue;
        }
        const CDescriptor folder = OpenFolder(entry->path().string());
        struct stat status = {};
        std::error_code ignored;
        if (folder.IsOpen() && fstat(folder.Get(), &status) == 0 && status.st_uid == geteuid() &&
            flock(folder.Get(), LOCK_EX | LOCK_NB) == 0) {
            (void)std::filesystem::remove_all(entry->path(), ignored);
        }
    }
}

} // namespace

bool CTemporaryFolder::Make(uint64_t ullMostBytes, std::string &strError) {
    const char *pszParent = getenv("TMPDIR");
    if (pszParent == nullptr || *pszParent != '/') {
        // Both, and first: what a killed scan left in memory takes the room there.
        RemoveAbandoned(kMemoryFolder);
        RemoveAbandoned(kDiskFolder);
        pszParent = FitsInMemory(ullMostBytes) ? kMemoryFolder : kDiskFolder;
    } else {
        RemoveAbandoned(pszParent);
    }
    bool bMade = false;
    for (int nLeft = kAttempts; nLeft > 0 && !bMade; --nLeft) {
        bMade = MakeBelow(pszParent);
    }
    if (!bMade) {
        strError = "cannot make a temporary folder in " + ErrnoText(pszParent, errno) + "; see TMPDIR";
    }
    return bMade;
}

// A scan that starts at the same time may take the new folder for an abandoned one until it is locked.
bool CTemporaryFolder::MakeBelow(const std::string &strParent) {
    std::string strPath = strParent + "/";
    strPath += kName;
    strPath += kRandomName;
    if (mkdtemp(strPath.data()) == nullptr) {
        return false;
    }
    m_folder = OpenFolder(strPath);
    if (!m_folder.IsOpen()) {
        return false;
    }
    (void)flock(m_folder.Get(), LOCK_EX); // where nothing can be locked, nothing is taken for abandoned either
    if (access(strPath.c_str(), F_OK) == 0) {
        m_strPath = strPath;
    }
    return !m_strPath.empty();
}

bool CTemporaryFolder::HasRoom() const {
    struct statvfs info = {};
    if (fstatvfs(m_folder.Get(), &info) != 0) {
        return false;
    }
    const bool bRoot = geteuid() == 0; // may use what is kept back from others
    const uint64_t ullFree = static_cast<uint64_t>(bRoot ? info.f_bfree : info.f_bavail) * info.f_frsize;
    const uint64_t ullFreeFiles = bRoot ? info.f_ffree : info.f_favail;
    // A total of 0 stands for no limit.
    return (info.f_blocks == 0 || ullFree >= kLeastFreeBytes) && (info.f_files == 0 || ullFreeFiles >= kLeastFreeFiles);
}

CTemporaryFolder::~CTemporaryFolder() {
    std::error_code ignored;
    if (!m_strPath.empty()) {
        (void)std::filesystem::remove_all(m_strPath, ignored);
    }
}
