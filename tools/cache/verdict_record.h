// The form that verdicts have in the cache.
#ifndef TARN_TOOLS_CACHE_VERDICT_RECORD_H
#define TARN_TOOLS_CACHE_VERDICT_RECORD_H

#include "tools/engine/verdict.h"

#include <tarncache.h>

#include <cstdint>
#include <string_view>

constexpr int32_t kEngineCode = 48; // of this program's engine; the marker clean_engine_flag drops its records

// From the low byte of a flag word.
EFileType TypeOfFlags(uint32_t ulFlags);

// What tells the records of one signature set from those of another: 18 bits of the set's fingerprint, in their places
// in the flag word.
uint32_t SignatureTag(std::string_view fingerprint);

// The record to add for a clean or infected file: engine 48, and the flag word
//   bits 0-7           file type
//   bits 13-17         result state: 0 clean, 1 infected
//   bit 18             set when infected
//   bits 8-12, 19-31   the tag of the signatures that gave the verdict
_SCAN_FILE_RESULT ToRecord(const _FileVerdict &verdict, uint32_t ulTag);

// The verdict in a record that the cache gave. False when another engine or other signatures made it, or when it does
// not hold together; the file has to be scanned then. Outdated records are normally deleted, but that may fail or come
// before the last of them is written.
bool FromRecord(const _SCAN_FILE_RESULT &record, const char *pszMD5, uint32_t ulTag, _FileVerdict &verdict);

#endif
