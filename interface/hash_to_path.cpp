// The entry points that go from MD5s to files.
#include "interface/entry.h"

#include "util/log.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

constexpr char kLogSource[] = "tarncache";

static_assert(sizeof(_CacheFileInfo) == 41 && offsetof(_CacheFileInfo, pszFilePaths) == 33);
static_assert(sizeof(_LOCAL_CACHE_STATISTIC) == 8);

// The requested MD5s, in ascending order, with their records; frees the records.
class CRequest {
  public:
    CRequest(const char *md5s, uint64_t count) {
        for (uint64_t i = 0; i < count; ++i) {
            const char *pszSlot = md5s + i * TARN_MD5_TEXT_SIZE;
            m_mapRecords.emplace(std::string(pszSlot, strnlen(pszSlot, TARN_MD5_TEXT_SIZE)),
                                 std::vector<_CacheRecordEx *>());
        }
    }
    ~CRequest() { FreeRecords(m_mapRecords); }
    CRequest(const CRequest &) = delete;
    CRequest &operator=(const CRequest &) = delete;

    RecordMap m_mapRecords;
};

// The output array while it is filled; frees what it holds unless it is handed out.
class CFileInfoArray {
  public:
    explicit CFileInfoArray(uint64_t count)
        : m_pInfos(static_cast<_CacheFileInfo *>(std::calloc(count, sizeof(_CacheFileInfo)))), m_count(count) {}
    ~CFileInfoArray() {
        for (uint64_t i = 0; m_pInfos != nullptr && i < m_count; ++i) {
            std::free(m_pInfos[i].pszFilePaths);
        }
        std::free(m_pInfos);
    }
    CFileInfoArray(const CFileInfoArray &) = delete;
    CFileInfoArray &operator=(const CFileInfoArray &) = delete;

    bool IsAllocated() const { return m_pInfos != nullptr; }
    _CacheFileInfo &operator[](uint64_t i) { return m_pInfos[i]; }
    _CacheFileInfo *HandOut() { return std::exchange(m_pInfos, nullptr); }

  private:
    _CacheFileInfo *m_pInfos;
    uint64_t m_count;
};

std::string JoinPaths(const std::vector<_CacheRecordEx *> &vecRecords) {
    std::string strPaths;
    for (const _CacheRecordEx *pRecord : vecRecords) {
        if (pRecord->szFilePath[0] != '\0') {
            strPaths.append(pRecord->szFilePath).append(";");
        }
    }
    return strPaths;
}

bool FillInfo(_CacheFileInfo &info, const std::string &strMD5, const std::vector<_CacheRecordEx *> &vecRecords) {
    std::memcpy(info.szMD5, strMD5.c_str(), std::min<size_t>(strMD5.size(), TARN_MD5_TEXT_SIZE - 1));
    const std::string strPaths = JoinPaths(vecRecords);
    info.pszFilePaths = strPaths.empty() ? nullptr : strdup(strPaths.c_str());
    return strPaths.empty() || info.pszFilePaths != nullptr;
}

} // namespace

uint32_t LocalCacheFindFilesByHash(const char *md5s, uint64_t count, _CacheFileInfo **out, uint64_t *outCount) {
    return Ask(md5s != nullptr && count != 0 && out != nullptr && outCount != nullptr, [=](CDataBaseAgent &agent) {
        CRequest request(md5s, count);
        if (const uint32_t ulResult = agent.LookupFilePathsByHashs(request.m_mapRecords); ulResult != TARN_OK) {
            return ulResult;
        }
        CFileInfoArray infos(count);
        if (!infos.IsAllocated()) {
            return TARN_E_OUTOFMEMORY;
        }
        uint64_t i = 0;
        for (const auto &[strMD5, vecRecords] : request.m_mapRecords) {
            if (!FillInfo(infos[i++], strMD5, vecRecords)) {
                return TARN_E_OUTOFMEMORY;
            }
        }
        *outCount = count; // repeated MD5s leave zeroed records at the end
        *out = infos.HandOut();
        return TARN_OK;
    });
}

uint32_t LocalCacheLookUpByHashes(const char *md5s, uint64_t count, std::map<std::string, int32_t> &flags) {
    return Ask(md5s != nullptr && count != 0, [md5s, count, &flags](CDataBaseAgent &agent) {
        CRequest request(md5s, count);
        if (const uint32_t ulResult = agent.LookupFilePathsByHashs(request.m_mapRecords); ulResult != TARN_OK) {
            return ulResult;
        }
        for (const auto &[strMD5, vecRecords] : request.m_mapRecords) {
            if (!vecRecords.empty()) {
                flags.emplace(strMD5, static_cast<int32_t>(VerdictFlags(vecRecords.front()->liTreatVirus)));
            }
        }
        return TARN_OK;
    });
}

uint32_t LocalCacheSetFindProgress(void (*onFolder)(const char *folder, void *context), void *context) {
    return Ask(true, [=](CDataBaseAgent &agent) {
        agent.FindProgress().Set(onFolder, context);
        return TARN_OK;
    });
}

void LocalCacheFree(_CacheFileInfo *pCacheFileinfo, uint64_t uCfinfoCounts) {
    const CCancelGuard noCancel;
    if (pCacheFileinfo == nullptr || uCfinfoCounts == 0) {
        TARN_LOG_ERROR("[%s]arg pCacheFileinfo is null or uCfinfoCounts is 0.");
        return;
    }
    // Only the first record's text, on purpose: callers free those of the others, and freeing them here as well would
    // free them twice.
    std::free(pCacheFileinfo->pszFilePaths);
    std::free(pCacheFileinfo);
}
