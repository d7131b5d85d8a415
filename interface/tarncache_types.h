/* tarncache_types.h - the result codes, sizes and records of tarncache.h, which includes it. */
#ifndef TARNCACHE_TYPES_H
#define TARNCACHE_TYPES_H

#include <stdint.h>
#include <sys/stat.h>

/* Result codes. */
#define TARN_OK 0x00000000u                /* success */
#define TARN_NOT_CACHED 0x00000001u        /* not in the cache, or changed since it was added: scan the file */
#define TARN_E_INVALIDARG 0x80070057u      /* bad argument */
#define TARN_E_OUTOFMEMORY 0x8007000Eu     /* out of memory */
#define TARN_E_FAIL 0x80004005u            /* any other failure; the log says which */
#define TARN_E_ABORT 0x80004004u           /* ended early by shut-down */
#define TARN_E_NOT_INITIALIZED 0x80040200u /* no LocalCacheInit before this call */
#define TARN_E_NOT_MATCHED 0x80040205u     /* LocalCacheUnInit without a matching LocalCacheInit */
#define TARN_E_TIMEOUT 0x800705B4u         /* the time to wait is over; what was waited for goes on */

/* Sizes of text fields and buffers, in bytes. */
#define TARN_MD5_TEXT_SIZE 33   /* 32 hexadecimal digits and a NUL */
#define TARN_VIRUS_DESC_SIZE 64 /* a virus description with its NUL; longer ones are cut */
#define TARN_PATH_SIZE 4096     /* a path with its NUL, the platform's limit; longer ones are unknown to the cache */
#define TARN_PATH_INDEX_SIZE 6  /* a path index, at most 5 characters, and a NUL */

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

/* One stored record. A record has hashes of its file's path and status, not the path. */
typedef struct _LOCAL_CACHE_RECORD {
    int64_t liPathHash;
    int64_t liTimeStamp;   /* seconds since the epoch of the last write or hit */
    int32_t lAttrHash;     /* of size and status-change time */
    int32_t lEngineCode;   /* as a lookup gives it */
    uint32_t ulFlags;      /* as a lookup gives it */
    uint32_t ulQueryCount; /* hits since the last expiry pass */
    char szMD5[TARN_MD5_TEXT_SIZE];
    char szVirusDesc[TARN_VIRUS_DESC_SIZE];
    char szPathIndex[TARN_PATH_INDEX_SIZE];
    uint8_t abReserved[57]; /* zero; room for later fields */
} _LOCAL_CACHE_RECORD;

/* What LocalCachePeek found. */
#define TARN_PEEK_UNKNOWN 0u /* no record of this path */
#define TARN_PEEK_CHANGED 1u /* a record, but the file is not as it was, or is gone */
#define TARN_PEEK_KNOWN 2u   /* a record of the file as it is */

/* Why a lookup would or would not answer. */
#define TARN_WHY_KNOWN 0u   /* it would: a record of the file as it is */
#define TARN_WHY_UNKNOWN 1u /* no record of this path */
#define TARN_WHY_CHANGED                                                                                               \
    2u                        /* size or change time differ from the record's, which may also be that of another file  \
                                 whose path has the same hash */
#define TARN_WHY_GONE 3u      /* a record, but the file's status cannot be taken */
#define TARN_WHY_DAMAGED 4u   /* a record whose virus description cannot be read */
#define TARN_WHY_OTHER 5u     /* size and change second agree, but it is another file, or the record has no code */
#define TARN_WHY_WITHDRAWN 6u /* an update has withdrawn it; it is about to be deleted */

/* What LocalCacheExplain tells. */
typedef struct _LOCAL_CACHE_EXPLANATION {
    uint32_t size;              /* set by the caller: sizeof(_LOCAL_CACHE_EXPLANATION); the record grows at its end */
    uint32_t ulReason;          /* TARN_WHY_... */
    int32_t lStatusError;       /* errno value of taking the file's status; 0: the next four fields hold it */
    int32_t lAttrHash;          /* of the file as it is now */
    int64_t liFileSize;         /* bytes */
    int64_t liChangeTime;       /* seconds since the epoch */
    uint32_t ulChangeTimeNs;    /* and nanoseconds */
    uint32_t ulHasRecord;       /* 1: record is set; 0: it is zeroed */
    _LOCAL_CACHE_RECORD record; /* what is stored */
} _LOCAL_CACHE_EXPLANATION;

/* How the cache was started. */
#define TARN_MODE_FULL 0u   /* LocalCacheInit: with the writer thread */
#define TARN_MODE_DIRECT 1u /* LocalCacheInitEx: without it */
#define TARN_MODE_READER 2u /* LocalCacheInitReader: for questions alone */

/* What LocalCacheGetInfo tells, for people. Counters begin at the start of the cache. */
typedef struct _LOCAL_CACHE_INFO {
    uint32_t size;                /* set by the caller: sizeof(_LOCAL_CACHE_INFO); the record grows at its end */
    uint32_t ulMode;              /* TARN_MODE_... */
    uint64_t ullRecords;          /* stored */
    uint64_t ullRecordCap;        /* from this many on, the oldest are trimmed */
    uint64_t ullHits;             /* lookups that were answered; a reader does not count */
    uint64_t ullMisses;           /* lookups that were not */
    uint64_t ullAdded;            /* records written */
    uint64_t ullQueued;           /* records waiting to be written */
    uint64_t ullLost;             /* records that could not be written */
    uint64_t ullFileBytes;        /* of the database */
    uint64_t ullFreeBytes;        /* of them, unused */
    int64_t liNextExpiry;         /* seconds since the epoch; at the first start from then on */
    uint32_t ulExpireInterval;    /* days between expiry passes */
    uint32_t ulExpirePercent;     /* 0 to 100 */
    uint32_t ulStartsSinceExpiry; /* starts of the writer */
    uint32_t ulIdentity;          /* 1: records are bound to their files by identity codes; 0: they are not */
} _LOCAL_CACHE_INFO;

/* Whether LocalCacheScanFinish has queued the verdict, or why not. */
#define TARN_REMEMBER_YES 0u
#define TARN_REMEMBER_WRITTEN 1u     /* somebody has the file open or mapped for writing */
#define TARN_REMEMBER_FILE_SYSTEM 2u /* statuses can be forged there: user space, network, removable media ... */
#define TARN_REMEMBER_UNKNOWN 3u     /* the kernel cannot say who writes */
#define TARN_REMEMBER_CHANGED 4u     /* the file changed during the scan: the verdict may hold for neither state */
#define TARN_REMEMBER_RECENT 5u      /* changed less than 2 seconds before the scan, or in the future */
#define TARN_REMEMBER_REFUSED 6u     /* the addition failed; the log says why. A reader adds nothing */

/* What TARN_REMEMBER_FILE_SYSTEM makes an exception for: who runs the other machine can change a file unnoticed. */
#define TARN_ALLOW_NETWORK 1u   /* network file systems */
#define TARN_ALLOW_REMOVABLE 2u /* removable media, and images in files that others may write */

/* The bracket of one scan. */
typedef struct _LOCAL_CACHE_SCAN {
    uint32_t size;      /* set by the caller: sizeof(_LOCAL_CACHE_SCAN); the record grows at its end */
    uint32_t ulAllow;   /* TARN_ALLOW_...; cleared by Begin, the caller may set it before Finish */
    struct stat status; /* taken by Begin, and what the verdict is remembered with; to be read only */
    uint64_t ullMark;   /* the rest is the library's */
    int64_t liBegun;    /* nanoseconds since the epoch */
    int32_t lDescriptor;
    uint32_t ulFindings;
    uint8_t abReserved[64];
} _LOCAL_CACHE_SCAN;

/* The file type in the flag word; 0 makes the cache write the record at once instead of within a second or two. */
#define TARN_FILE_TYPE(flags) ((flags)&0xFFu)

/* The 5-bit result state in the flag word; the cache keeps its low 4 bits. */
#define TARN_RESULT_STATE_SHIFT 13
#define TARN_RESULT_STATE(flags) (((flags) >> TARN_RESULT_STATE_SHIFT) & 0x1Fu)

#endif
