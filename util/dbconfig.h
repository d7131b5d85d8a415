// dbconfig.h - the cache's settings and running state in section "cacheeng" of the product's shared ini file.
//
// None of the functions locks: reading happens before the writer thread exists, writing on that thread or during
// start-up.
#ifndef TARN_UTIL_DBCONFIG_H
#define TARN_UTIL_DBCONFIG_H

#include "interface/tarncache.h"

#include <cstdint>
#include <string>

struct _DBConfig {
    char szDBDir[TARN_PATH_SIZE]; // folder of the database file, ends in '/'; never read from the file
    char szDBName[64];            // database file name in szDBDir
    uint64_t liDiskThreshold;     // bytes that must be free on the file system of szDBDir at start-up
    int32_t lCacheSize;           // SQLite page cache, pages
    int64_t liExpireTime;         // seconds since the epoch at which the next expiry pass is due
    uint32_t lExpireInterval;     // days from one expiry pass to the next
    uint32_t lDBQueryCounts;      // writer starts since the last expiry pass
    uint32_t lExpirePercent;      // 0..100, used by the expiry pass and by trimming
    bool bProtect;                // records are bound to their files; false without the key "protect"
    int32_t lModuleVersion;       // written to an empty version table; no key sets it
};

// The path of the database file.
[[nodiscard]] std::string DatabasePath(const _DBConfig &config);

// Fills every field of a zeroed record from the file or by default, and makes the database folder when it is missing.
// TARN_OK, or TARN_E_FAIL (null record; folder cannot be made: record untouched; file cannot be loaded: only szDBDir is
// set). The reasons are logged at debug level.
[[nodiscard]] TARN_API uint32_t ReadDBConfig(_DBConfig *pDBCfg);

// As ReadDBConfig, for one who only asks: makes no folder. TARN_OK; TARN_NOT_CACHED: no configuration or no database is
// there (an empty file is none); TARN_E_FAIL: one of them cannot be read.
[[nodiscard]] uint32_t ReadExistingDBConfig(_DBConfig *pDBCfg);

// Stores the three values that change at run time: "dbname", "dbquerycounts" and "expiretime". Everything else in the
// file stays as it is. TARN_OK or TARN_E_FAIL (null record, file cannot be loaded or saved: the file is unchanged).
[[nodiscard]] TARN_API uint32_t WriteDBConfig(_DBConfig *pDBCfg);

#endif
