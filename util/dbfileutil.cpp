#include "util/dbfileutil.h"

#include "platform/nubbase.h"
#include "util/file_identity.h"
#include "util/log.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_set>

namespace {

constexpr char kLogSource[] = "dbfileutil";
constexpr char kWalk[] = "FindFilesByCchRecords"; // every message of the walk names it

struct _DirClose {
    void operator()(DIR *pDir) const { (void)closedir(pDir); }
};
using DirHandle = std::unique_ptr<DIR, _DirClose>;

// A directory's own index, NUL-terminated; empty when it cannot be computed.
struct _DirIndex {
    char szIndex[kPathIndexLength + 1] = {};
    explicit _DirIndex(const char *dirPath) {
        if (CalcFilePathIndex(dirPath, szIndex, kPathIndexLength) == 0) {
            TARN_LOG_AS(ELogLevel::Error, "FilterDir", "[%s]CalFilePathIndex failed.");
        }
    }
    bool IsValid() const { return szIndex[0] != '\0'; }
};

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

// Path hash -> record, in one flat table: a walk asks it for every file it meets, and a node-based map would cost
// several cache misses each time.
class CRecordIndex {
  public:
    explicit CRecordIndex(size_t nRecords) : m_vecSlots(std::bit_ceil(2 * nRecords + 1)) {}

    // The first record with a hash keeps it.
    void Add(_CacheRecordEx *pRecord) {
        _Slot &slot = Find(pRecord->liFilePathHash);
        if (slot.pRecord == nullptr) {
            slot = {pRecord->liFilePathHash, pRecord};
        }
    }
    _CacheRecordEx *Record(int64_t liFilePathHash) { return Find(liFilePathHash).pRecord; }

  private:
    struct _Slot {
        int64_t liFilePathHash;
        _CacheRecordEx *pRecord; // null: free
    };

    // The slot of this hash, or the free one where it belongs. The low bits of a path hash, a CRC, spread evenly.
    _Slot &Find(int64_t liFilePathHash) {
        auto n = static_cast<size_t>(liFilePathHash) & (m_vecSlots.size() - 1);
        while (m_vecSlots[n].pRecord != nullptr && m_vecSlots[n].liFilePathHash != liFilePathHash) {
            n = (n + 1) & (m_vecSlots.size() - 1);
        }
        return m_vecSlots[n];
    }

    std::vector<_Slot> m_vecSlots; // a power of two, at most half full
};

size_t CountRecords(const RecordMap &records) {
    size_t nRecords = 0;
    for (const auto &[strMD5, vecRecords] : records) {
        nRecords += vecRecords.size();
    }
    return nRecords;
}

// What one walk looks for, in a form whose cost does not grow with the number of records.
class CWalkTargets {
  public:
    explicit CWalkTargets(const RecordMap &records) : m_table(CountRecords(records)) {
        for (const auto &[strMD5, vecRecords] : records) {
            for (_CacheRecordEx *pRecord : vecRecords) {
                if (pRecord != nullptr) {
                    m_table.Add(pRecord);
                    AddPrefixes(pRecord->szFilePathIndex);
                }
            }
        }
    }

    bool ShouldEnter(const char *dirPath) const {
        const _DirIndex index(dirPath);
        return !index.IsValid() || m_setPrefixes.count(index.szIndex) != 0;
    }

    // szPath is the whole buffer, zero-padded, and so is the record's field afterwards. An empty field is zeroed
    // already: writing 4 KiB into each of many records would cost more than finding them.
    void Resolve(int64_t liFilePathHash, const char (&szPath)[TARN_PATH_SIZE]) {
        if (_CacheRecordEx *pRecord = m_table.Record(liFilePathHash)) {
            const bool bEmpty = pRecord->szFilePath[0] == '\0';
            std::memcpy(pRecord->szFilePath, szPath, bEmpty ? std::strlen(szPath) + 1 : TARN_PATH_SIZE);
        }
    }

  private:
    // Once an index is in, so are all its prefixes; many records share one.
    void AddPrefixes(const char (&szIndex)[kPathIndexLength + 1]) {
        std::string strPrefix(szIndex, strnlen(szIndex, sizeof szIndex));
        while (!strPrefix.empty() && m_setPrefixes.insert(strPrefix).second) {
            strPrefix.pop_back();
        }
    }

    std::unordered_set<std::string> m_setPrefixes;
    CRecordIndex m_table;
};

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
    // errno is not cleared on purpose: a status that could not be read shows here once more, at its directory's end.
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

uint32_t CdbFileUtil::FindFilesByCchRecords(RecordMap &records) {
    CWalkTargets targets(records);
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
        if (m_onFolder) {
            m_onFolder(strDir.c_str());
        }
        ReadDirectory(targets, pDir.get(), strDir, m_listDirs);
    }
    TARN_LOG_DEBUG_AS(kWalk, "[%s]already finish enum files.");
    return TARN_OK;
}
