// result_codes.h - the result codes shared by every layer.
//
// interface/tarncache.h publishes the same lines to callers. The lower layers cannot include it, so they stand here
// too; a difference between the two does not compile, because the entry points include both.
#ifndef TARN_UTIL_RESULT_CODES_H
#define TARN_UTIL_RESULT_CODES_H

#define TARN_OK 0x00000000u                /* success */
#define TARN_NOT_CACHED 0x00000001u        /* not in the cache, or changed since it was added: scan the file */
#define TARN_E_INVALIDARG 0x80070057u      /* bad argument */
#define TARN_E_OUTOFMEMORY 0x8007000Eu     /* out of memory */
#define TARN_E_FAIL 0x80004005u            /* any other failure; the log says which */
#define TARN_E_ABORT 0x80004004u           /* ended early by shut-down */
#define TARN_E_NOT_INITIALIZED 0x80040200u /* no LocalCacheInit before this call */
#define TARN_E_NOT_MATCHED 0x80040205u     /* LocalCacheUnInit without a matching LocalCacheInit */

#endif
