#include "util/dbfileutil.h"

#include "platform/nubbase.h"
#include "util/file_identity.h"
#include "util/log.h"
#include "util/walk_targets.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char kLogSource[] = "dbfileutil";
constexpr char kWalk[] = "FindFilesByCchRecords"; // every message of the walk names it

struct _DirClose {
    void operator()(DIR *pDir) const { (void)closedir(pDir); }
};
using DirHandle = std::unique_ptr<DIR, _DirClose>;

// opendir that does not follow a link put in the directory's place since it was listed.
DirHandle OpenDirectory(const std::string &strDir) {
    const std::string strName = strDir.size() > 1 ? strDir.substr(0, strDir.size() - 1) : strDir;
    const int fd = open(strName.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return nullptr;
    }
    DirHandle pDir(fdopendir(fd));
    if (pDir == nullptr) {
        const int iError = errno;
        (void)close(fd);
        errno = iError;
    }
    return pDir;
}

void VisitFile(CWalkTargets &targets, const char (&szPath)[TARN_PATH_SIZE]) {
    int64_t liFilePathHash = 0;
    if (!CalcPathHash(szPath, liFilePathHash)) {
        TARN_LOG_AS(ELogLevel::Error, kWalk, "[%s]cal file (%s) crc failed.", szPath);
        return;
    }
    targets.Resolve(liFilePathHash, szPath);
}

void VisitDirectory(CWalkTargets &targets, char (&szPath)[TARN_PATH_SIZE], size_t nLength,
                    std::list<std::string> &listDirs) {
    TARN_LOG_DEBUG_AS(kWalk, "[%s]find dir:%s.", szPath);
    if (nLength + 2 > TARN_PATH_SIZE) { // no room for the '/' and the NUL
        TARN_LOG_DEBUG_AS(kWalk, "[%s]the length of path:%s is over the max size of linux path.", szPath);
        return;
    }
    szPath[nLength] = '/';
    if (targets.ShouldEnter(szPath)) {
        listDirs.emplace_back(szPath);
    }
}

void VisitEntry(CWalkTargets &targets, DIR *pDir, const std::string &strDir, const char *pszName,
                std::list<std::string> &listDirs) {
    const size_t nLength = strDir.size() + std::strlen(pszName);
    if (nLength + 1 > TARN_PATH_SIZE) {
        TARN_LOG_DEBUG_AS(kWalk, "[%s]the length of the [%s%s]  is over the %d.", strDir.c_str(), pszName,
                          static_cast<int>(TARN_PATH_SIZE));
        return;
    }
    char szPath[TARN_PATH_SIZE] = {};
    str_snprintf(szPath, sizeof szPath, "%s%s", strDir.c_str(), pszName);
    struct stat status = {};
    // From the open directory, so that a parent exchanged meanwhile leads nowhere else.
    if (fstatat(dirfd(pDir), pszName, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        TARN_LOG_AS(ELogLevel::Error, kWalk, "[%s]get file %s stat failed. error:%s", szPath, std::strerror(errno));
    } else if (S_ISDIR(status.st_mode)) {
        VisitDirectory(targets, szPath, nLength, listDirs);
    } else if (S_ISREG(status.st_mode)) {
        VisitFile(targets, szPath);
    } else {
        TARN_LOG_DEBUG_AS(kWalk, "[%s]file:%s is not regular file or dir.", szPath);
    }
}

void ReadDirectory(CWalkTargets &targets, DIR *pDir, const std::string &strDir, std::list<std::string> &listDirs) {
    const int iErrnoAtOpen = errno;
    while (const dirent *pEntry = readdir(pDir)) {
        if (std::strcmp(pEntry->d_name, ".") != 0 && std::strcmp(pEntry->d_name, "..") != 0) {
            VisitEntry(targets, pDir, strDir, pEntry->d_name, listDirs);
        }
    }
    // errno is not cleared before the loop, on purpose: log readers expect that an entry whose status could not be read
    // shows once more at the end of its directory.
    if (errno == EBADF || errno != iErrnoAtOpen) {
        TARN_LOG_AS(ELogLevel::Error, kWalk, "[%s]readdir failed with error:%s.", std::strerror(errno));
    }
}

} // namespace

CdbFileUtil::CdbFileUtil() = default;

CdbFileUtil::~CdbFileUtil() = default;

void CdbFileUtil::GetAllFilePathIndex(const RecordMap &records, std::vector<std::string> &indexes) {
    for (const auto &[strMD5, vecRecords] : records) {
        for (const _CacheRecordEx *pRecord : vecRecords) {
            if (pRecord != nullptr) {
                indexes.emplace_back(pRecord->szFilePathIndex,
                                     strnlen(pRecord->szFilePathIndex, sizeof pRecord->szFilePathIndex));
            }
        }
    }
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): a fixed signature
bool CdbFileUtil::FilterDir(const char *dirPath, std::vector<std::string> indexes) {
    const _DirIndex index(dirPath);
    if (!index.IsValid()) {
        return false;
    }
    const size_t nLength = std::strlen(index.szIndex);
    return std::none_of(indexes.begin(), indexes.end(), [&](const std::string &strIndex) {
        return std::strncmp(strIndex.c_str(), index.szIndex, nLength) == 0;
    });
}

// The end of a directory is judged by errno, which the host's function may leave changed.
void CdbFileUtil::TellFolder(const char *pszFolder) {
    if (m_onFolder) {
        const int iError = errno;
        m_onFolder(pszFolder);
        errno = iError;
    }
}

uint32_t CdbFileUtil::FindFilesByCchRecords(RecordMap &records) {
    CWalkTargets targets(records);
    // A list of paths instead of recursion: the depth of a tree is a stranger's choice, and descriptors are few.
    m_listDirs.emplace_back("/");
    while (!m_listDirs.empty()) {
        const std::string strDir = std::move(m_listDirs.front());
        m_listDirs.pop_front();
        if (!targets.ShouldEnter(strDir.c_str())) {
            continue;
        }
        const DirHandle pDir = OpenDirectory(strDir);
        if (pDir == nullptr) {
            TARN_LOG_DEBUG_AS(kWalk, "[%s]open dir:%s failed, err:%s.", strDir.c_str(), std::strerror(errno));
            continue;
        }
        TellFolder(strDir.c_str());
        ReadDirectory(targets, pDir.get(), strDir, m_listDirs);
    }
    TARN_LOG_DEBUG_AS(kWalk, "[%s]already finish enum files.");
    return TARN_OK;
}
