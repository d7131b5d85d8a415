// Marker files of the engine updater, on the writer thread at its start. Deletions run under the table lock held for
// writing.
#include "agent/dbagent.h"

#include "formats/installation.h"
#include "interface/tarncache.h"
#include "platform/nubbase.h"
#include "util/log.h"

#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace {

constexpr char kLogSource[] = "dbagent";
constexpr int32_t kHashFlag = 8;
constexpr int32_t kEngineFlag = 32;

struct _EngineFlag {
    int32_t lFlag;
    ENGID engineId;
};

constexpr _EngineFlag kEngines[] = {
    {0x2, 43}, {0x4, 44}, {0x8, 45}, {0x20, 48}, {0x100, 49}, {0x200, 47}, {0x1000, 46}, {0x10000, 50},
};

// The marker's path pattern; the empty text for a name that is no marker.
const char *MarkerPattern(const char *name) {
    if (std::strcmp(name, kHashMarkerName) == 0) {
        return kHashMarkerPath;
    }
    return std::strcmp(name, kEngineMarkerName) == 0 ? kEngineMarkerPath : "";
}

// Whether there was something to remove makes no difference.
void RemoveFile(const char *pszPattern) {
    char szPath[TARN_PATH_SIZE] = {};
    dirutils_path_transform(pszPattern, szPath, sizeof szPath);
    (void)std::remove(szPath);
}

} // namespace

bool CDataBaseAgent::ReadCleanCacheFlag(const char *name, int32_t *flag) {
    if (name == nullptr || flag == nullptr) {
        return false;
    }
    char szFilePath[TARN_PATH_SIZE] = {};
    const char *pszPattern = MarkerPattern(name);
    if (*pszPattern != '\0') {
        dirutils_path_transform(pszPattern, szFilePath, sizeof szFilePath);
    }
    if (szFilePath[0] == '\0') {
        TARN_LOG_ERROR("[%s]clean flag file path is empty.");
        return false;
    }
    if (access(szFilePath, F_OK) != 0) {
        TARN_LOG_INFO("[%s]cache clean flag file is not detected, no need to clean cache");
        return false;
    }
    *flag = std::strcmp(name, kHashMarkerName) == 0 ? kHashFlag : kEngineFlag;
    TARN_LOG_DEBUG("[%s]ReadCleanCacheFlag name : %s   val: %d    szFilePath: %s", name, *flag, szFilePath);
    return true;
}

bool CDataBaseAgent::ResetCleanCacheFlag(const char *name) {
    if (name == nullptr) {
        return false;
    }
    if (std::strcmp(name, kHashMarkerName) == 0) {
        RemoveFile(kUpdateCachePath); // before its marker: a list without a marker is never read
    }
    if (const char *pszPattern = MarkerPattern(name); *pszPattern != '\0') {
        RemoveFile(pszPattern);
    }
    return true;
}

void CDataBaseAgent::GetEngineListByFlag(int32_t flag, EngineSet &engines) {
    engines.clear();
    if (flag == 0 || flag == -1) {
        return;
    }
    const CWriteLock lock(
        m_connection.m_tableLock); // on purpose: lookups have always waited here during an engine update
    for (const _EngineFlag &engine : kEngines) {
        if ((engine.lFlag & flag) != 0) {
            engines.insert(static_cast<int16_t>(engine.engineId));
        }
    }
}

uint32_t CDataBaseAgent::CheckDeleteAllCacheRecordsByFlag(int32_t flag) {
    if (flag == 0) {
        return TARN_OK;
    }
    if (flag == -1) {
        return DeleteAllRecords();
    }
    EngineSet engines;
    GetEngineListByFlag(flag, engines);
    const CWriteLock lock(m_connection.m_tableLock);
    if (m_pCacheTable->BatchDeleteRecordsByEngineIds(engines) == 0) {
        TARN_LOG_ERROR("[%s]BatchDeleteRecordsByEngineIds failed, engine cnt=%d", static_cast<int>(engines.size()));
        return TARN_E_FAIL;
    }
    return TARN_OK;
}

uint32_t CDataBaseAgent::CheckDeleteAllCacheRecords() {
    int32_t lFlag = 0;
    if (!ReadCleanCacheFlag(kEngineMarkerName, &lFlag)) {
        return TARN_E_FAIL;
    }
    // The marker is consumed exactly once: a failed deletion is not tried again at the next start.
    (void)CheckDeleteAllCacheRecordsByFlag(lFlag);
    return ResetCleanCacheFlag(kEngineMarkerName) ? TARN_OK : TARN_E_FAIL;
}
