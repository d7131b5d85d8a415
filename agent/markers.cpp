#include "agent/markers.h"

#include "formats/installation.h"
#include "platform/nubbase.h"
#include "util/log.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>
#include <vector>

namespace {

constexpr char kLogSource[] = "dbagent";
constexpr char kRead[] = "ReadCleanCacheFlag";
constexpr int32_t kHashFlag = 8;
constexpr int32_t kEngineFlag = 32;

struct _EngineFlag {
    int32_t lFlag;
    ENGID engineId;
};

constexpr _EngineFlag kEngines[] = {
    {0x2, 43}, {0x4, 44}, {0x8, 45}, {0x20, 48}, {0x100, 49}, {0x200, 47}, {0x1000, 46}, {0x10000, 50},
};

bool IsHashMarker(const char *pszName) {
    return std::strcmp(pszName, kHashMarkerName) == 0;
}

// The marker's path; the empty text for a name that is no marker.
const char *PathOfMarker(const char *pszName) {
    if (IsHashMarker(pszName)) {
        return kHashMarkerPath;
    }
    return std::strcmp(pszName, kEngineMarkerName) == 0 ? kEngineMarkerPath : "";
}

} // namespace

bool ReadMarker(const char *pszName, int32_t &lFlag) {
    char szFilePath[TARN_PATH_SIZE] = {};
    if (const char *pszPath = PathOfMarker(pszName); *pszPath != '\0') {
        dirutils_path_transform(pszPath, szFilePath, sizeof szFilePath);
    }
    if (szFilePath[0] == '\0') {
        TARN_LOG_AS(ELogLevel::Error, kRead, "[%s]clean flag file path is empty.");
        return false;
    }
    if (access(szFilePath, F_OK) != 0) {
        TARN_LOG_AS(ELogLevel::Info, kRead, "[%s]cache clean flag file is not detected, no need to clean cache");
        return false;
    }
    lFlag = IsHashMarker(pszName) ? kHashFlag : kEngineFlag;
    TARN_LOG_DEBUG_AS(kRead, "[%s]ReadCleanCacheFlag name : %s   val: %d    szFilePath: %s", pszName, lFlag,
                      szFilePath);
    return true;
}

void RemoveMarker(const char *pszName) {
    if (IsHashMarker(pszName)) {
        RemoveFile(kUpdateCachePath); // before its marker: a list without a marker is never read
    }
    if (const char *pszPath = PathOfMarker(pszName); *pszPath != '\0') {
        RemoveFile(pszPath);
    }
}

EngineSet EnginesOf(int32_t lFlag) {
    EngineSet engines;
    for (const _EngineFlag &engine : kEngines) {
        if ((engine.lFlag & lFlag) != 0) {
            engines.insert(static_cast<int16_t>(engine.engineId));
        }
    }
    return engines;
}

bool GetUpdateCacheFilePath(char *path, int32_t size) {
    if (path == nullptr || size <= 0) {
        return false;
    }
    std::vector<char> vecPattern(static_cast<size_t>(size));
    str_snprintf(vecPattern.data(), vecPattern.size(), "%s", kUpdateCachePath);
    dirutils_path_transform(vecPattern.data(), path, size);
    if (access(path, F_OK) != 0) {
        TARN_LOG_ERROR("[%s]access %s failed", path);
        return false;
    }
    return true;
}

bool IsFileThere(const char *pszPath) {
    char szExpanded[TARN_PATH_SIZE] = {};
    dirutils_path_transform(pszPath, szExpanded, sizeof szExpanded);
    return szExpanded[0] != '\0' && access(szExpanded, F_OK) == 0;
}

bool MayFileBeThere(const char *pszPath) {
    char szExpanded[TARN_PATH_SIZE] = {};
    dirutils_path_transform(pszPath, szExpanded, sizeof szExpanded);
    return szExpanded[0] == '\0' || access(szExpanded, F_OK) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

bool MoveFile(const char *pszFrom, const char *pszTo) {
    char szFrom[TARN_PATH_SIZE] = {};
    char szTo[TARN_PATH_SIZE] = {};
    dirutils_path_transform(pszFrom, szFrom, sizeof szFrom);
    dirutils_path_transform(pszTo, szTo, sizeof szTo);
    return std::rename(szFrom, szTo) == 0;
}

void RemoveFile(const char *pszPath) {
    char szExpanded[TARN_PATH_SIZE] = {};
    dirutils_path_transform(pszPath, szExpanded, sizeof szExpanded);
    (void)std::remove(szExpanded);
}
