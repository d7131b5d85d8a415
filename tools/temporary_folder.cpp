#include "tools/temporary_folder.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace {

constexpr const char *kMemoryFolder = "/dev/shm";
constexpr uint64_t kReserve = 4; // times the most that the engine may unpack

// Bytes that the machine can still give.
uint64_t AvailableMemory() {
    std::ifstream info("/proc/meminfo");
    std::string strName;
    uint64_t uKiB = 0;
    std::string strUnit;
    while (info >> strName >> uKiB && std::getline(info, strUnit)) {
        if (strName == "MemAvailable:")
            return uKiB * 1024;
    }
    return 0;
}

// The smallest limit of a control group and of all groups above it.
uint64_t SmallestLimit(const std::string &strBase, std::string strGroup, const char *pszFile) {
    for (uint64_t uLimit = UINT64_MAX;;) {
        std::ifstream limit(strBase + strGroup + "/" + pszFile);
        uint64_t uValue = 0;
        if (limit >> uValue)
            uLimit = std::min(uLimit, uValue);
        const size_t slash = strGroup.rfind('/');
        if (slash == std::string::npos)
            return uLimit;
        strGroup.resize(slash);
    }
}

// What the control groups allow this process; a file in memory counts against it.
uint64_t MemoryLimit() {
    uint64_t uLimit = UINT64_MAX;
    std::ifstream groups("/proc/self/cgroup");
    for (std::string strLine; std::getline(groups, strLine);) {
        const size_t slash = strLine.find(":/");
        const std::string strGroup = slash == std::string::npos ? "" : strLine.substr(slash + 1);
        if (strLine.starts_with("0::")) {
            uLimit = std::min(uLimit, SmallestLimit("/sys/fs/cgroup", strGroup, "memory.max"));
        } else if (strLine.find("memory") < slash) {
            uLimit = std::min(uLimit, SmallestLimit("/sys/fs/cgroup/memory", strGroup, "memory.limit_in_bytes"));
        }
    }
    return uLimit;
}

bool FitsInMemory(uint64_t uMostBytes) {
    struct statfs info {};
    if (statfs(kMemoryFolder, &info) != 0 || info.f_type != TMPFS_MAGIC || access(kMemoryFolder, W_OK) != 0)
        return false;
    const uint64_t uFree = static_cast<uint64_t>(info.f_bavail) * static_cast<uint64_t>(info.f_bsize);
    return uMostBytes != 0 && std::min({uFree, AvailableMemory(), MemoryLimit()}) / kReserve >= uMostBytes;
}

} // namespace

CTemporaryFolder::CTemporaryFolder(uint64_t uMostBytes) {
    const char *pszParent = getenv("TMPDIR");
    if (pszParent == nullptr || *pszParent != '/')
        pszParent = FitsInMemory(uMostBytes) ? kMemoryFolder : "/tmp";
    std::string strTemplate = std::string(pszParent) + "/tarncache-XXXXXX";
    if (mkdtemp(strTemplate.data()) != nullptr)
        m_strPath = strTemplate;
}

CTemporaryFolder::~CTemporaryFolder() {
    std::error_code ignored;
    if (!m_strPath.empty())
        (void)std::filesystem::remove_all(m_strPath, ignored);
}
