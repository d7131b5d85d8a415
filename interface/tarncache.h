/* tarncache.h - a persistent local cache of antivirus scan results.
 *
 * Ask before a scan whether the file is known and unchanged (LocalCacheLookup); add the verdict after a scan
 * (LocalCacheAdd). Verdicts survive restarts, clean and infected ones alike.
 *
 * Threads: LocalCacheInit, LocalCacheInitEx, LocalCacheInitReader and LocalCacheUnInit are serialised inside. Every
 * other function may be called from any number of threads at once, but never at the same time as the last
 * LocalCacheUnInit.
 *
 * Integrators: regular files only. Bracket each scan with LocalCacheScanBegin and LocalCacheScanFinish, which leave out
 * what could change unnoticed; who takes the status himself and calls LocalCacheAddStat must not add a file whose
 * status changed within the last two seconds. Wait with LocalCacheWaitReady before the first lookup, and ask
 * LocalCacheFlush at the end what was lost. To ask only, start with LocalCacheInitReader. Never open the database file
 * yourself: closing any descriptor of it drops the process's locks on it.
 *
 * fork: a child that is forked while the cache is in use, from a start to the end that matches it, has no cache: every
 * call finds it uninitialised, starts are TARN_E_FAIL and ends TARN_E_NOT_MATCHED, until the child executes another
 * program. So a daemon forks before its first start or after its last end; such a child starts the cache as any process
 * does. Closing the library (dlclose) leaves it loaded and the cache running.
 */
#ifndef TARNCACHE_H
#define TARNCACHE_H

#include "tarncache_types.h"

#include <pthread.h>
#include <sys/stat.h>

#if defined(__GNUC__)
#define TARN_API __attribute__((visibility("default")))
#else
#define TARN_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Serialises start-up and shut-down; exported for hosts that must keep both out for a while. Outermost lock. */
extern TARN_API pthread_mutex_t g_DBMutex;

/* Starts the cache with its writer thread, or counts one more user of the running one.
 * TARN_OK; TARN_E_OUTOFMEMORY; TARN_E_FAIL (disk nearly full, no configuration, database cannot be opened). */
TARN_API uint32_t LocalCacheInit(void);

/* Starts the cache without its writer thread: lookups, statistics and deletions work. Do not call LocalCacheAdd: what
 * is added waits in memory until LocalCacheUnInit and is never written. Codes as LocalCacheInit. The mode of the first
 * user holds until the last one leaves. */
TARN_API uint32_t LocalCacheInitEx(void);

/* Starts for questions alone: opens the database for reading; makes, repairs, replaces and writes nothing, asks for no
 * free space, and works beside a running cache of another process. Lookups (which count neither as hits nor as misses),
 * peek, explain, counts, info, enumerate and find work, LocalCacheWaitReady returns at once; all else is TARN_E_FAIL.
 * The mode of the first user holds here too.
 * TARN_OK; TARN_NOT_CACHED: there is no database yet; TARN_E_FAIL: it cannot be opened or read. */
TARN_API uint32_t LocalCacheInitReader(void);

/* Waits until the start-up work (markers, withdrawn digests, expiry) is done: before that a lookup may still answer
 * with a withdrawn verdict. timeoutMs: milliseconds. TARN_OK, without a writer thread at once; TARN_E_TIMEOUT;
 * TARN_E_FAIL: done, but a list of digests was refused and stays; TARN_E_NOT_INITIALIZED. */
TARN_API uint32_t LocalCacheWaitReady(uint32_t timeoutMs);

/* Waits until all that was queued before the call, additions and noted hits, is on disk or lost, and hurries the
 * writer. timeoutMs: milliseconds. *lost (may be NULL): records dropped since the start; 0 without a running cache.
 * TARN_OK; TARN_E_TIMEOUT; TARN_E_FAIL without a writer thread while something is queued. TARN_E_NOT_INITIALIZED. */
TARN_API uint32_t LocalCacheFlush(uint32_t timeoutMs, uint64_t *lost);

/* Ends one use; the last one writes what is queued and closes the database.
 * TARN_OK; TARN_E_NOT_MATCHED when there is no use to end. */
TARN_API uint32_t LocalCacheUnInit(void);

/* Is this file known and unchanged? path: absolute, spelled as it was added; md5: at least 33 bytes.
 * TARN_OK: *md5 and the named fields of *result hold the stored verdict. TARN_NOT_CACHED: unknown or changed (the
 * outputs may hold an empty description, nothing else is written). TARN_E_INVALIDARG; TARN_E_NOT_INITIALIZED;
 * TARN_E_FAIL (the file's status cannot be read). Never writes to the disk; may wait about a second while a large
 * database is compacted, at the start and every 30 minutes. With the key "protect" it waits for other calls for 1.5
 * seconds at most and then misses. */
TARN_API uint32_t LocalCacheLookup(const char *path, char *md5, _SCAN_FILE_RESULT *result);

/* As LocalCacheLookup, with the file's own status (lstat, or fstat of a descriptor) taken by the caller: one system
 * call less, and no moment between status and record in which the file could change unseen. status NULL:
 * TARN_E_INVALIDARG. */
TARN_API uint32_t LocalCacheLookupStat(const char *path, const struct stat *status, char *md5,
                                       _SCAN_FILE_RESULT *result);

/* What does the cache know of this path, for people and tools: unlike a lookup it also shows the verdict of a file that
 * has changed since, and does not count as a hit. TARN_OK: *state is set; unless it is TARN_PEEK_UNKNOWN, *md5 and the
 * named fields of *result hold the stored verdict. On failure *state and *md5 are untouched. TARN_E_INVALIDARG;
 * TARN_E_NOT_INITIALIZED; TARN_E_FAIL. */
TARN_API uint32_t LocalCachePeek(const char *path, char *md5, _SCAN_FILE_RESULT *result, uint32_t *state);

/* Queues one verdict; the writer stores it within about two seconds, replacing what the cache knew of the path.
 * md5: 32 hexadecimal digits (other text is stored as 16 zero bytes). The record is copied.
 * TARN_OK; TARN_E_INVALIDARG; TARN_E_NOT_INITIALIZED; TARN_E_OUTOFMEMORY; TARN_E_FAIL (status or description; the
 * writer has failed; 200,000 records wait and are not written, as they never are after LocalCacheInitEx). */
TARN_API uint32_t LocalCacheAdd(const char *path, const char *md5, _SCAN_FILE_RESULT *result);

/* As LocalCacheAdd, for the file that had this status. Take it before the scan: a file that changes afterwards then
 * misses. status NULL: TARN_E_INVALIDARG. */
TARN_API uint32_t LocalCacheAddStat(const char *path, const struct stat *status, const char *md5,
                                    const _SCAN_FILE_RESULT *result);

/* Begins the scan of a file: takes its status and asks the kernel who may write it. Call it between opening and
 * reading. fd: open for reading, of a regular file; it stays open until Finish, and no other thread brackets the same
 * open file description meanwhile. scan->size is set by the caller. The bracket holds nothing and may be dropped. Who
 * opens the file for writing waits for microseconds at most (O_NONBLOCK: may get EWOULDBLOCK); the file's dirty pages
 * may be written back; no signal reaches the host. TARN_OK, also for a file that will not be remembered;
 * TARN_E_INVALIDARG (NULL, a smaller size, no regular file); TARN_E_NOT_INITIALIZED; TARN_E_OUTOFMEMORY. */
TARN_API uint32_t LocalCacheScanBegin(int fd, _LOCAL_CACHE_SCAN *scan);

/* Ends the scan: asks and takes the status again, and queues the verdict with the status of Begin, as LocalCacheAddStat
 * would, if nothing speaks against it. path: absolute; path, md5, verdict: as in LocalCacheAdd. The bracket is used up.
 * TARN_OK: queued, *reason is TARN_REMEMBER_YES. TARN_NOT_CACHED: *reason says why it must not be remembered; of
 * several reasons the first in the order CHANGED, FILE_SYSTEM, WRITTEN, UNKNOWN, RECENT, REFUSED. TARN_E_INVALIDARG
 * (NULL, empty, no open bracket), TARN_E_NOT_INITIALIZED: *reason untouched. */
TARN_API uint32_t LocalCacheScanFinish(_LOCAL_CACHE_SCAN *scan, const char *path, const char *md5,
                                       const _SCAN_FILE_RESULT *verdict, uint32_t *reason);

/* Deletes every stored record with this MD5; a record still queued is not affected.
 * TARN_OK, also when there was none; TARN_E_INVALIDARG; TARN_E_NOT_INITIALIZED; TARN_E_FAIL. */
TARN_API uint32_t LocalCacheDeleteByFileHash(const char *md5);

/* Deletes every stored record of one engine (its low 16 bits), of one path, or all of them; records still queued are
 * not affected, so flush before where they matter. Lookups wait meanwhile. Codes as LocalCacheDeleteByFileHash. */
TARN_API uint32_t LocalCacheDeleteByEngine(int32_t engine);
TARN_API uint32_t LocalCacheDeleteByPath(const char *path);
TARN_API uint32_t LocalCacheClear(void);

/* Trims the records to the cap now, as the timer does: from a million records on, the oldest go. Lookups wait
 * meanwhile. TARN_OK, also when there was nothing to do; TARN_E_NOT_INITIALIZED; TARN_E_FAIL. */
TARN_API uint32_t LocalCacheTrim(void);

/* Reads the counters. TARN_OK; TARN_E_INVALIDARG; TARN_E_NOT_INITIALIZED; TARN_E_FAIL (*statistic untouched). */
TARN_API uint32_t LocalCacheGetStatistic(_LOCAL_CACHE_STATISTIC *statistic);

/* Reads what there is to know about the cache as a whole. TARN_OK; TARN_E_INVALIDARG (NULL, or info->size below 8);
 * TARN_E_NOT_INITIALIZED; TARN_E_FAIL (*info untouched). */
TARN_API uint32_t LocalCacheGetInfo(_LOCAL_CACHE_INFO *info);

/* How many stored records carry this MD5 (text that is none counts as 16 zero bytes, as it does when it is added)? No
 * walk. TARN_OK, also for none; TARN_E_INVALIDARG; TARN_E_NOT_INITIALIZED; TARN_E_FAIL (*count untouched). */
TARN_API uint32_t LocalCacheCountByFileHash(const char *md5, uint64_t *count);

/* Tells what is stored for a path, what the file is now, and why a lookup would or would not answer. Not counted as a
 * hit. path: absolute. TARN_OK: *explanation is set up to its size, or to the end of what the library knows.
 * TARN_E_INVALIDARG (NULL, empty, or a size below 8); TARN_E_NOT_INITIALIZED; TARN_E_FAIL (*explanation untouched). */
TARN_API uint32_t LocalCacheExplain(const char *path, _LOCAL_CACHE_EXPLANATION *explanation);

/* Calls onRecord for every stored record, in ascending order of path hashes, until it returns non-zero. Records are
 * read in small groups and no lock is held during a call, so what is added or deleted meanwhile may show or not.
 * *record is valid during the call. TARN_OK, also when ended early; TARN_E_INVALIDARG; TARN_E_NOT_INITIALIZED, also in
 * a child that onRecord has forked; TARN_E_FAIL. */
TARN_API uint32_t LocalCacheEnumerate(int (*onRecord)(const _LOCAL_CACHE_RECORD *record, void *context), void *context);

/* Checks the database file and the agreement of its tables and changes nothing. onFinding (may be NULL) is then
 * called with each finding, a line of text that is valid during the call; no lock is held. Lookups wait for parts of
 * the check, a second or two in a large cache, and so do writers of other processes: let none be at work. Not for
 * readers. TARN_OK: sound; TARN_E_FAIL: it is not, or cannot be checked; TARN_E_NOT_INITIALIZED. */
TARN_API uint32_t LocalCacheCheck(void (*onFinding)(const char *text, void *context), void *context);

/* Which files on this machine carry these MD5s? md5s: count slots of 33 bytes, each a NUL-terminated text. Walks the
 * file system and may take long; other calls go on meanwhile.
 * TARN_OK: *out is an array of *outCount (= count) records in ascending order of distinct MD5, the rest zeroed.
 * TARN_E_INVALIDARG; TARN_E_NOT_INITIALIZED; TARN_E_OUTOFMEMORY; TARN_E_FAIL (outputs untouched).
 * Ownership: free every pszFilePaths but the first with free() and set it to NULL, then call LocalCacheFree. */
TARN_API uint32_t LocalCacheFindFilesByHash(const char *md5s, uint64_t count, _CacheFileInfo **out, uint64_t *outCount);

/* Sets the function that LocalCacheFindFilesByHash and LocalCacheLookUpByHashes call on the walking thread for each
 * folder they enter; NULL ends it, and when this returns the former function is not running any more. Not to be called
 * from inside onFolder, from where no walk may be begun either. folder: absolute, ends in "/", valid during the call.
 * TARN_OK; TARN_E_NOT_INITIALIZED. */
TARN_API uint32_t LocalCacheSetFindProgress(void (*onFolder)(const char *folder, void *context), void *context);

/* Frees the array and its first record's path text; the path texts of the other records stay with the caller. */
TARN_API void LocalCacheFree(_CacheFileInfo *pCacheFileinfo, uint64_t uCfinfoCounts);

/* File identity: 1 on success; 0 on failure, outputs untouched.
 * CalcFilePathCrc32: out gets two words, the 64-bit path hash in little-endian order.
 * CalcFileAttrCrc32: out gets the hash of size and status-change time (of a link itself, not its target).
 * CalcFilePathIndex: out gets up to maxLen characters without a NUL; zero it first. */
TARN_API int CalcFilePathCrc32(const char *path, uint32_t *out);
TARN_API int CalcFileAttrCrc32(const char *path, uint32_t *out);
TARN_API int CalcFilePathIndex(const char *path, char *out, uint32_t maxLen);

/* A result code in words, in English and without a full stop; never NULL. */
TARN_API const char *LocalCacheErrorText(uint32_t code);

/* The library's version, as in "1.2.3". */
TARN_API const char *LocalCacheVersion(void);

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
