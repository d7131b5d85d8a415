#include "util/dbconfig.h"

#include "formats/installation.h"
#include "platform/nubbase.h"
#include "util/log.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char kLogSource[] = "dbconfig";
constexpr char kSection[] = "cacheeng";
constexpr char kReadFunction[] = "ReadDBConfig"; // both ways of reading log in its name
// The search bit is left out on purpose: a folder made here serves root alone, who needs none. For any other user the
// one who installs makes the folder.
constexpr mode_t kDatabaseDirMode = 0660;

struct _IniFree {
    void operator()(void *pIni) const { ini_file_free(pIni); }
};
using IniHandle = std::unique_ptr<void, _IniFree>;

int32_t ToInt32(const char *pszValue) {
    return static_cast<int32_t>(std::strtol(pszValue, nullptr, 10));
}
uint32_t ToUint32(const char *pszValue) {
    return static_cast<uint32_t>(ToInt32(pszValue));
}

// One function for each number key, because each logs its text in its own words and stores it in its own unit. A text
// that is no number counts as 0.

void SetCacheSize(_DBConfig &config, const char *pszValue) {
    TARN_LOG_DEBUG_AS(kReadFunction, "[%s][cache] read cache size:%s.", pszValue);
    config.lCacheSize = ToInt32(pszValue);
}
void SetDiskThreshold(_DBConfig &config, const char *pszValue) {
    TARN_LOG_DEBUG_AS(kReadFunction, "[%s][cache] read disk free size:%s.", pszValue);
    config.liDiskThreshold = static_cast<uint64_t>(int64_t{ToInt32(pszValue)}) << 20U; // megabytes to bytes
}
void SetExpireTime(_DBConfig &config, const char *pszValue) {
    TARN_LOG_DEBUG_AS(kReadFunction, "[%s][cache] read expire time:%s.", pszValue);
    config.liExpireTime = std::strtoll(pszValue, nullptr, 10);
}
void SetExpireInterval(_DBConfig &config, const char *pszValue) {
    TARN_LOG_DEBUG_AS(kReadFunction, "[%s][cache] read expire interval time:%s.", pszValue);
    config.lExpireInterval = ToUint32(pszValue);
}
void SetExpirePercent(_DBConfig &config, const char *pszValue) {
    TARN_LOG_DEBUG_AS(kReadFunction, "[%s][cache] read expire percent:%s.", pszValue);
    config.lExpirePercent = std::min(ToUint32(pszValue), 100U); // unsigned: a negative text ends up at 100 too
}
void SetQueryCounts(_DBConfig &config, const char *pszValue) {
    TARN_LOG_DEBUG_AS(kReadFunction, "[%s][cache] read query count:%s.", pszValue);
    config.lDBQueryCounts = ToUint32(pszValue);
}

void SetDefaults(_DBConfig &config) {
    config.lCacheSize = 8000;
    config.liDiskThreshold = 500; // bytes, though the key speaks in megabytes: installations without the key rely on it
    config.liExpireTime = 0;
    config.lExpireInterval = 90;
    config.lExpirePercent = 30;
    config.lDBQueryCounts = 0;
}

struct _NumberKey {
    const char *pszKey;
    void (*pSet)(_DBConfig &config, const char *pszValue);
};

constexpr _NumberKey kNumberKeys[] = {
    {"cachesize", SetCacheSize},           {"diskthreshold", SetDiskThreshold}, {"expiretime", SetExpireTime},
    {"expireinterval", SetExpireInterval}, {"expirepercent", SetExpirePercent}, {"dbquerycounts", SetQueryCounts},
};

void ReadKeys(_DBConfig &config, void *pIni, const char *pszConfigPath) {
    const char *pszName = ini_file_get(pIni, kSection, "dbname");
    if (pszName == nullptr) {
        TARN_LOG_DEBUG_AS(kReadFunction, "[%s][cache] get key:%s from config:%s failed.", "dbname", pszConfigPath);
        pszName = kDatabaseName;
    }
    if (*pszName == '\0') {
        pszName = kDatabaseName; // an empty name would make the folder itself the database, and a rebuild delete it
    }
    str_snprintf(config.szDBName, sizeof config.szDBName, "%s", pszName);
    SetDefaults(config);
    // Not one of the keys below: without it nothing is logged, so that the log reads as it did before there was the
    // key.
    const char *pszProtect = ini_file_get(pIni, kSection, "protect");
    config.bProtect = pszProtect != nullptr && ToInt32(pszProtect) != 0;
    for (const _NumberKey &key : kNumberKeys) {
        if (const char *pszValue = ini_file_get(pIni, kSection, key.pszKey)) {
            key.pSet(config, pszValue);
        } else {
            TARN_LOG_DEBUG_AS(kReadFunction, "[%s][cache] get key:%s from config failed.", key.pszKey);
        }
    }
}

void ExpandPaths(char (&szConfigPath)[TARN_PATH_SIZE], char (&szDir)[TARN_PATH_SIZE]) {
    dirutils_path_transform(kConfigPath, szConfigPath, sizeof szConfigPath);
    TARN_LOG_DEBUG_AS(kReadFunction, "[%s][cache] tarn config path:%s.", szConfigPath);
    dirutils_path_transform(kDatabaseDir, szDir, sizeof szDir);
    TARN_LOG_DEBUG_AS(kReadFunction, "[%s][cache] defalut save db dir:%s.", szDir);
}

uint32_t LoadKeys(_DBConfig &config, const char *pszConfigPath) {
    const IniHandle pIni(ini_file_load(pszConfigPath));
    if (pIni == nullptr) {
        TARN_LOG_DEBUG_AS(kReadFunction, "[%s][cache] load config file:%s failed.", pszConfigPath);
        return TARN_E_FAIL;
    }
    ReadKeys(config, pIni.get(), pszConfigPath);
    return TARN_OK;
}

} // namespace

std::string DatabasePath(const _DBConfig &config) {
    return std::string(config.szDBDir) + config.szDBName;
}

uint32_t ReadDBConfig(_DBConfig *pDBCfg) {
    if (pDBCfg == nullptr) {
        TARN_LOG_ERROR("[%s][cache] arg pDBCfg is null.");
        return TARN_E_FAIL;
    }
    char szConfigPath[TARN_PATH_SIZE] = {};
    char szDir[TARN_PATH_SIZE] = {};
    ExpandPaths(szConfigPath, szDir);
    if (access(szDir, F_OK) != 0) {
        TARN_LOG_DEBUG("[%s][cache] cache db dir:%s is not exist, err:%s.", szDir, std::strerror(errno));
        if (mkdir(szDir, kDatabaseDirMode) != 0) {
            TARN_LOG_DEBUG("[%s][cache] mkdir %s failed, err:%s.", szDir, std::strerror(errno));
            return TARN_E_FAIL;
        }
    }
    str_snprintf(pDBCfg->szDBDir, sizeof pDBCfg->szDBDir, "%s", szDir);
    return LoadKeys(*pDBCfg, szConfigPath);
}

uint32_t ReadExistingDBConfig(_DBConfig *pDBCfg) {
    char szConfigPath[TARN_PATH_SIZE] = {};
    ExpandPaths(szConfigPath, pDBCfg->szDBDir);
    if (access(szConfigPath, F_OK) != 0 && errno == ENOENT) {
        return TARN_NOT_CACHED;
    }
    if (const uint32_t ulResult = LoadKeys(*pDBCfg, szConfigPath); ulResult != TARN_OK) {
        return ulResult;
    }
    const std::string strDatabase = DatabasePath(*pDBCfg);
    struct stat status = {};
    if (stat(strDatabase.c_str(), &status) != 0) {
        return errno == ENOENT ? TARN_NOT_CACHED : TARN_E_FAIL;
    }
    // A database that another process is just making is empty at first.
    return status.st_size == 0 ? TARN_NOT_CACHED : TARN_OK;
}

uint32_t WriteDBConfig(_DBConfig *pDBCfg) {
    if (pDBCfg == nullptr) {
        TARN_LOG_ERROR("[%s][cache] arg pDBCfg is null.");
        return TARN_E_FAIL;
    }
    char szConfigPath[TARN_PATH_SIZE] = {};
    dirutils_path_transform(kConfigPath, szConfigPath, sizeof szConfigPath);
    TARN_LOG_DEBUG("[%s][cache] tarn config path:%s.", szConfigPath);
    const IniHandle pIni(ini_file_load(szConfigPath));
    if (pIni == nullptr) {
        TARN_LOG_DEBUG("[%s][cache] load config file:%s failed.", szConfigPath);
        return TARN_E_FAIL;
    }
    char szQueryCounts[33] = {};
    char szExpireTime[65] = {};
    str_snprintf(szQueryCounts, sizeof szQueryCounts, "%d", static_cast<int32_t>(pDBCfg->lDBQueryCounts));
    str_snprintf(szExpireTime, sizeof szExpireTime, "%lld", static_cast<long long>(pDBCfg->liExpireTime));
    ini_file_set(pIni.get(), kSection, "dbname", pDBCfg->szDBName);
    ini_file_set(pIni.get(), kSection, "dbquerycounts", szQueryCounts);
    ini_file_set(pIni.get(), kSection, "expiretime", szExpireTime);
    if (ini_file_save(pIni.get(), szConfigPath, 0) != 0) {
        TARN_LOG_DEBUG("[%s][cache] save ini file failed, err:%s.", std::strerror(errno));
        return TARN_E_FAIL;
    }
    return TARN_OK;
}
