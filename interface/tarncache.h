/* tarncache.h - a persistent local cache of antivirus scan results.
 *
 * Ask before a scan whether the file is known and unchanged (LocalCacheLookup); add the verdict after a scan
 * (LocalCacheAdd). Verdicts survive restarts, clean and infected ones alike.
 *
 * Threads: LocalCacheInit, LocalCacheInitEx and LocalCacheUnInit are serialised inside. Every other function may be
 * called from any number of threads at once, but never at the same time as the last LocalCacheUnInit.
 *
 * Integrators: regular files only; take the file's status (lstat) before the scan and compare it after; do not add a
 * file that changed in between or whose status changed within the last two seconds. Never open the database file
 * yourself: closing any descriptor of it drops the process's locks on it. Do not fork and use the cache on both sides.
 */
#ifndef TARNCACHE_H
#define TARNCACHE_H

#include <pthread.h>
#include <stdint.h>

#if defined(__GNUC__)
#define TARN_API __attribute__((visibility("default")))
#else
#define TARN_API
#endif

/* Result codes. */
#define TARN_OK 0x00000000u                /* success */
#define TARN_NOT_CACHED 0x00000001u        /* not in the cache, or changed since it was added: scan the file */
#define TARN_E_INVALIDARG 0x80070057u      /* bad argument */
#define TARN_E_OUTOFMEMORY 0x8007000Eu     /* out of memory */
#define TARN_E_FAIL 0x80004005u            /* any other failure; the log says which */
#define TARN_E_ABORT 0x80004004u           /* ended early by shut-down */
#define TARN_E_NOT_INITIALIZED 0x80040200u /* no LocalCacheInit before this call */
#define TARN_E_NOT_MATCHED 0x80040205u     /* LocalCacheUnInit without a matching LocalCacheInit */

/* Sizes of text fields and buffers, in bytes. */
#define TARN_MD5_TEXT_SIZE 33   /* 32 hexadecimal digits and a NUL */
#define TARN_VIRUS_DESC_SIZE 64 /* a virus description with its NUL; longer ones are cut */

#ifdef __cplusplus
extern "C" {
#endif

#pragma pack(push, 1)

/* One scan verdict. The cache reads and writes the named fields only; every reserved byte is the caller's. */
typedef struct _SCAN_FILE_RESULT {
    uint8_t abReserved0[8];
    int32_t lEngineCode; /* engine or verdict code; its low 16 bits are kept and come back sign-extended */
    uint8_t abReserved12[1];
    uint32_t ulFlags; /* flag word: file type in bits 0-7, result state in bits 13-17 */
    uint8_t abReserved17[88];
    char szVirusDesc[TARN_VIRUS_DESC_SIZE]; /* virus description, NUL-terminated; empty for a clean file */
} _SCAN_FILE_RESULT;

/* The files that carry one MD5. */
typedef struct _CacheFileInfo {
    char szMD5[TARN_MD5_TEXT_SIZE];
    char *pszFilePaths; /* every path followed by ";", which a path may hold too; NULL: no file found. Unaligned. */
} _CacheFileInfo;

#pragma pack(pop)

/* Counters of the running cache. */
typedef struct _LOCAL_CACHE_STATISTIC {
    uint32_t ulAddedCount; /* records written since the start */
    uint32_t ulCacheSize;  /* records in the cache now */
} _LOCAL_CACHE_STATISTIC;

/* The file type in the flag word; 0 makes the cache write the record at once instead of within a second or two. */
#define TARN_FILE_TYPE(flags) ((flags)&0xFFu)

/* The 5-bit result state in the flag word; the cache keeps its low 4 bits. */
#define TARN_RESULT_STATE_SHIFT 13
#define TARN_RESULT_STATE(flags) (((flags) >> TARN_RESULT_STATE_SHIFT) & 0x1Fu)

/* Serialises start-up and shut-down; exported for hosts that must keep both out for a while. Outermost lock. */
extern TARN_API pthread_mutex_t g_DBMutex;

/* Starts the cache with its writer thread, or counts one more user of the running one.
 * TARN_OK; TARN_E_OUTOFMEMORY; TARN_E_FAIL (disk nearly full, no configuration, database cannot be opened). */
TARN_API uint32_t LocalCacheInit(void);

/* Starts the cache without its writer thread: lookups, statistics and deletions work. Do not call LocalCacheAdd: what
 * is added waits in memory until LocalCacheUnInit and is never written. Codes as LocalCacheInit. The mode of the first
 * user holds until the last one leaves. */
TARN_API uint32_t LocalCacheInitEx(void);

/* Ends one use; the last one writes what is queued and closes the database.
 * TARN_OK; TARN_E_NOT_MATCHED when there is no use to end. */
TARN_API uint32_t LocalCacheUnInit(void);

/* Is this file known and unchanged? path: absolute, spelled as it was added; md5: at least 33 bytes.
 * TARN_OK: *md5 and the named fields of *result hold the stored verdict. TARN_NOT_CACHED: unknown or changed (the
 * outputs may hold an empty description, nothing else is written). TARN_E_INVALIDARG; TARN_E_NOT_INITIALIZED;
 * TARN_E_FAIL (the file's status cannot be read). Never writes to the disk; may wait about a second while a large
 * database is compacted, at the start and every 30 minutes. */
TARN_API uint32_t LocalCacheLookup(const char *path, char *md5, _SCAN_FILE_RESULT *result);

/* What LocalCachePeek found. */
#define TARN_PEEK_UNKNOWN 0u /* no record of this path */
#define TARN_PEEK_CHANGED 1u /* a record, but the file is not as it was, or is gone */
#define TARN_PEEK_KNOWN 2u   /* a record of the file as it is */

/* What does the cache know of this path, for people and tools: unlike a lookup it also shows the verdict of a file that
 * has changed since, and does not count as a hit. TARN_OK: *state is set; unless it is TARN_PEEK_UNKNOWN, *md5 and the
 * named fields of *result hold the stored verdict. TARN_E_INVALIDARG; TARN_E_NOT_INITIALIZED; TARN_E_FAIL. */
TARN_API uint32_t LocalCachePeek(const char *path, char *md5, _SCAN_FILE_RESULT *result, uint32_t *state);

/* Queues one verdict; the writer stores it within about two seconds, replacing what the cache knew of the path.
 * md5: 32 hexadecimal digits (other text is stored as 16 zero bytes). The record is copied.
 * TARN_OK; TARN_E_INVALIDARG; TARN_E_NOT_INITIALIZED; TARN_E_OUTOFMEMORY; TARN_E_FAIL (status or description). */
TARN_API uint32_t LocalCacheAdd(const char *path, const char *md5, _SCAN_FILE_RESULT *result);

/* Deletes every stored record with this MD5; a record still queued is not affected.
 * TARN_OK, also when there was none; TARN_E_INVALIDARG; TARN_E_NOT_INITIALIZED; TARN_E_FAIL. */
TARN_API uint32_t LocalCacheDeleteByFileHash(const char *md5);

/* Reads the counters. TARN_OK; TARN_E_INVALIDARG; TARN_E_NOT_INITIALIZED; TARN_E_FAIL (*statistic untouched). */
TARN_API uint32_t LocalCacheGetStatistic(_LOCAL_CACHE_STATISTIC *statistic);

/* Which files on this machine carry these MD5s? md5s: count slots of 33 bytes, each a NUL-terminated text. Walks the
 * file system and may take long; other calls go on meanwhile.
 * TARN_OK: *out is an array of *outCount (= count) records in ascending order of distinct MD5, the rest zeroed.
 * TARN_E_INVALIDARG; TARN_E_NOT_INITIALIZED; TARN_E_OUTOFMEMORY; TARN_E_FAIL (outputs untouched).
 * Ownership: free every pszFilePaths but the first with free() and set it to NULL, then call LocalCacheFree. */
TARN_API uint32_t LocalCacheFindFilesByHash(const char *md5s, uint64_t count, _CacheFileInfo **out, uint64_t *outCount);

/* Frees the array and its first record's path text; the path texts of the other records stay with the caller. */
TARN_API void LocalCacheFree(_CacheFileInfo *pCacheFileinfo, uint64_t uCfinfoCounts);

/* File identity: 1 on success; 0 on failure, outputs untouched.
 * CalcFilePathCrc32: out gets two words, the 64-bit path hash in little-endian order.
 * CalcFileAttrCrc32: out gets the hash of size and status-change time (of a link itself, not its target).
 * CalcFilePathIndex: out gets up to maxLen characters without a NUL; zero it first. */
TARN_API int CalcFilePathCrc32(const char *path, uint32_t *out);
TARN_API int CalcFileAttrCrc32(const char *path, uint32_t *out);
TARN_API int CalcFilePathIndex(const char *path, char *out, uint32_t maxLen);

#ifdef __cplusplus
}

#include <map>
#include <string>

/* The flag word, as it was added, for each MD5 the cache knows. md5s and count as in LocalCacheFindFilesByHash; flags
 * is added to: entries that are there stay as they are. Walks the file system too. TARN_OK; TARN_E_INVALIDARG,
 * TARN_E_NOT_INITIALIZED, TARN_E_FAIL (flags untouched); TARN_E_OUTOFMEMORY. */
extern "C" TARN_API uint32_t LocalCacheLookUpByHashes(const char *md5s, uint64_t count,
                                                      std::map<std::string, int32_t> &flags);
#endif

#endif
