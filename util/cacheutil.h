// cacheutil.h - the three small values that identify a file: path hash, attribute hash and path index.
//
// Pure functions of their arguments and the file system: no state, no locks, any thread. Each returns 1, or 0 with the
// outputs untouched.
#ifndef TARN_UTIL_CACHEUTIL_H
#define TARN_UTIL_CACHEUTIL_H

#include "util/export.h"

#include <cstdint>

extern "C" {

// Path hash as two words: CRC of the name, seeded with the low 16 bits of the CRC of the directory part (with its last
// '/'), then those 16 bits. The path is hashed byte for byte as given; one without '/' is refused and logged.
TARN_EXPORT int CalcFilePathCrc32(const char *path, uint32_t *out);

// CRC of size and status-change time (whole seconds) as lstat gives them. A failed lstat is logged.
TARN_EXPORT int CalcFileAttrCrc32(const char *path, uint32_t *out);

// The path's first character, then the first character of each directory component below the root, at most maxLen in
// all and without a NUL: the caller zeroes the buffer.
TARN_EXPORT int CalcFilePathIndex(const char *path, char *out, uint32_t maxLen);
}

#endif
