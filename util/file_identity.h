// file_identity.h - what identifies a file inside the cache, beside the three exported functions.
#ifndef TARN_UTIL_FILE_IDENTITY_H
#define TARN_UTIL_FILE_IDENTITY_H

#include "interface/tarncache.h"

// CalcFilePathCrc32 as the one 64-bit number that is stored. False: not a path with a '/' (logged unless it is empty).
[[nodiscard]] bool CalcPathHash(const char *pszPath, int64_t &liPathHash);

// The status that CalcFileAttrCrc32 takes: of a link itself, not of its target. False: none (logged in its name).
[[nodiscard]] bool TakeStatus(const char *pszPath, struct stat &status);

// What CalcFileAttrCrc32 computes, from a status that is there already.
[[nodiscard]] int32_t AttrHashOf(const struct stat &status);

#endif
