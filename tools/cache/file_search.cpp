#include "tools/cache/file_search.h"

#include <tarncache.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <set>

namespace {

// What the cache knows of the path, if that is this MD5.
uint32_t StateWith(const std::string &strPath, const std::string &strMD5) {
    std::array<char, TARN_MD5_TEXT_SIZE> md5 = {};
    _SCAN_FILE_RESULT record = {};
    uint32_t ulState = TARN_PEEK_UNKNOWN;
    const bool bDone = LocalCachePeek(strPath.c_str(), md5.data(), &record, &ulState) == TARN_OK;
    return bDone && strMD5 == md5.data() ? ulState : TARN_PEEK_UNKNOWN;
}

// Takes a joined text apart. Every path in it is followed by ";", which is a fair character in a name as well, so the
// text alone does not tell where a path ends.
class CPathSplitter {
  public:
    CPathSplitter(const std::string &strJoined, const std::string &strMD5) : m_strJoined(strJoined), m_strMD5(strMD5) {}

    std::vector<_FoundFile> Split() {
        std::vector<_FoundFile> vecFiles;
        while (m_nStart < m_strJoined.size()) {
            vecFiles.push_back(NextFile());
            m_setTaken.insert(vecFiles.back().strPath);
        }
        return vecFiles;
    }

  private:
    // A path ends where the text ends or another absolute path follows. Of these places the first counts where the
    // cache holds that very name under this MD5; if it holds none of them, the first counts.
    _FoundFile NextFile() {
        size_t nFirstEnd = std::string::npos;
        for (size_t nEnd = m_strJoined.find(';', m_nStart);
             nEnd != std::string::npos && nEnd - m_nStart < TARN_PATH_SIZE; nEnd = m_strJoined.find(';', nEnd + 1)) {
            if (nEnd + 1 != m_strJoined.size() && m_strJoined[nEnd + 1] != '/') {
                continue;
            }
            nFirstEnd = std::min(nFirstEnd, nEnd);
            const std::string strPath = m_strJoined.substr(m_nStart, nEnd - m_nStart);
            const uint32_t ulState = m_setTaken.contains(strPath) ? TARN_PEEK_UNKNOWN : StateWith(strPath, m_strMD5);
            if (ulState != TARN_PEEK_UNKNOWN) {
                m_nStart = nEnd + 1;
                return {strPath, ulState != TARN_PEEK_KNOWN};
            }
        }
        const size_t nEnd = std::min(nFirstEnd, m_strJoined.size());
        const std::string strPath = m_strJoined.substr(m_nStart, nEnd - m_nStart);
        m_nStart = nEnd + 1;
        return {strPath, true};
    }

    const std::string &m_strJoined;
    const std::string &m_strMD5;
    size_t m_nStart = 0;
    std::set<std::string> m_setTaken;
};

// The slots that the interface takes: 32 digits and a NUL each.
std::string Slots(const std::vector<std::string> &vecMD5) {
    std::string strSlots;
    for (const std::string &strMD5 : vecMD5) {
        strSlots.append(strMD5.c_str(), TARN_MD5_TEXT_SIZE);
    }
    return strSlots;
}

_FoundDigest FromRecord(const _CacheFileInfo &record, const char *pszPaths) {
    _FoundDigest found = {};
    found.strMD5 = record.szMD5;
    found.bKnown = pszPaths != nullptr;
    if (pszPaths != nullptr) {
        const std::string strJoined = pszPaths;
        found.vecFiles = CPathSplitter(strJoined, found.strMD5).Split();
    }
    return found;
}

// Every path text but the first is the caller's to free, see LocalCacheFree.
uint32_t FindPaths(const std::vector<std::string> &vecMD5, std::vector<_FoundDigest> &vecFound) {
    _CacheFileInfo *pRecords = nullptr;
    uint64_t ullCount = 0;
    const uint32_t ulCode = LocalCacheFindFilesByHash(Slots(vecMD5).c_str(), vecMD5.size(), &pRecords, &ullCount);
    if (ulCode != TARN_OK) {
        return ulCode;
    }
    for (uint64_t nIndex = 0; nIndex < ullCount; ++nIndex) {
        char *pszPaths = nullptr;
        std::memcpy(&pszPaths, &pRecords[nIndex].pszFilePaths, sizeof pszPaths); // the field is not aligned
        vecFound.push_back(FromRecord(pRecords[nIndex], pszPaths));
        if (nIndex != 0 && pszPaths != nullptr) {
            free(pszPaths);
            pszPaths = nullptr;
            std::memcpy(&pRecords[nIndex].pszFilePaths, &pszPaths, sizeof pszPaths);
        }
    }
    LocalCacheFree(pRecords, ullCount);
    return TARN_OK;
}

// Digests without a path are either unknown, or known from files that are gone.
uint32_t TellKnown(std::vector<_FoundDigest> &vecFound) {
    for (_FoundDigest &found : vecFound) {
        uint64_t ullRecords = 0;
        if (found.bKnown) {
            continue;
        }
        if (const uint32_t ulCode = LocalCacheCountByFileHash(found.strMD5.c_str(), &ullRecords); ulCode != TARN_OK) {
            return ulCode;
        }
        found.bKnown = ullRecords != 0;
    }
    return TARN_OK;
}

using OnFolder = std::function<void(const char *pszFolder)>;

// Tells of folders while it lives. Progress is for people: a failure of theirs must not end the walk.
class CProgressScope {
  public:
    explicit CProgressScope(const OnFolder &onFolder) : m_onFolder(onFolder) {
        (void)LocalCacheSetFindProgress(Tell, this);
    }
    ~CProgressScope() { (void)LocalCacheSetFindProgress(nullptr, nullptr); }
    CProgressScope(const CProgressScope &) = delete;
    CProgressScope &operator=(const CProgressScope &) = delete;

  private:
    static void Tell(const char *pszFolder, void *pScope) noexcept {
        try {
            static_cast<CProgressScope *>(pScope)->m_onFolder(pszFolder);
        } catch (const std::exception &) {
        }
    }

    const OnFolder &m_onFolder;
};

} // namespace

bool _FoundDigest::HasUnchangedFile() const {
    return std::any_of(vecFiles.begin(), vecFiles.end(), [](const _FoundFile &file) { return !file.bChanged; });
}

bool FindFiles(const std::vector<std::string> &vecMD5, const OnFolder &onFolder, std::vector<_FoundDigest> &vecFound,
               std::string &strError) {
    const CProgressScope progress(onFolder);
    uint32_t ulCode = FindPaths(vecMD5, vecFound);
    if (ulCode == TARN_OK) {
        ulCode = TellKnown(vecFound);
    }
    if (ulCode != TARN_OK) {
        strError = std::string("the search failed: ") + LocalCacheErrorText(ulCode);
    }
    return ulCode == TARN_OK;
}
