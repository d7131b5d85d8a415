// cache_record.h - one row of the cache in memory, and the packing of its verdict.
#ifndef TARN_UTIL_CACHE_RECORD_H
#define TARN_UTIL_CACHE_RECORD_H

#include "interface/tarncache.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <type_traits>

constexpr unsigned int kPathIndexLength = TARN_PATH_INDEX_SIZE - 1; // characters of a file path index that are kept

// What binds a record to its file; see CIdentityKey.
using IdentityCode = std::array<unsigned char, 16>;

// A scan result as the cache table stores it. The comment names the column.
struct _CacheRecord {
    int64_t liFilePathHash;                     // FPH, the key
    int32_t lFileAttrHash;                      // FAH
    int64_t liHighMD5;                          // FHMD: bytes 0-7 of the binary MD5, little-endian
    int64_t liLowMD5;                           // FLMD: bytes 8-15 of it
    int64_t liTreatVirus;                       // FTV: packed verdict, see PackVerdict
    int32_t lQueryCounts;                       // QC: hits since the last reset
    int64_t lTimeStamp;                         // TS: seconds since the epoch of the last write or hit
    int32_t lResultState;                       // RS: 4 significant bits
    char szFilePathIndex[kPathIndexLength + 1]; // FFI: NUL-terminated
    // Of a record on its way to the table; no columns of it.
    IdentityCode code;
    uint32_t ulDatabase; // in which the description has this index
};

// A record and the full path that the reverse lookup found for it (empty until then).
struct _CacheRecordEx : _CacheRecord {
    char szFilePath[TARN_PATH_SIZE];
};

// A file digest as the cache table keys it.
struct CacheMD5 {
    int64_t liHighMD5;
    int64_t liLowMD5;
};

static_assert(std::is_trivially_copyable_v<_CacheRecordEx>);
static_assert(sizeof(CacheMD5) == 16, "an MD5 is copied into it byte for byte");

// The packed verdict: flag word in bits 0-31, engine code in bits 32-47, virus description index in bits 48-63.
constexpr int64_t PackVerdict(uint32_t ulFlags, int16_t sEngineCode, int16_t sVirusIndex) {
    return static_cast<int64_t>(static_cast<uint64_t>(ulFlags) |
                                static_cast<uint64_t>(static_cast<uint16_t>(sEngineCode)) << 32U |
                                static_cast<uint64_t>(static_cast<uint16_t>(sVirusIndex)) << 48U);
}
constexpr uint32_t VerdictFlags(int64_t liTreatVirus) {
    return static_cast<uint32_t>(liTreatVirus & 0xFFFFFFFF);
}
constexpr int16_t VerdictEngineCode(int64_t liTreatVirus) {
    return static_cast<int16_t>(static_cast<uint64_t>(liTreatVirus) >> 32U & 0xFFFFU);
}
constexpr int16_t VerdictVirusIndex(int64_t liTreatVirus) {
    return static_cast<int16_t>(static_cast<uint64_t>(liTreatVirus) >> 48U);
}

// The 4 kept bits of a flag word's result state.
constexpr int32_t ResultStateOf(uint32_t ulFlags) {
    return static_cast<int32_t>(TARN_RESULT_STATE(ulFlags) & 0xFU);
}
// The flag word with its whole 5-bit state replaced, so that the state's top bit always comes back clear.
constexpr uint32_t WithResultState(uint32_t ulFlags, int32_t lState) {
    return (ulFlags & ~(0x1FU << TARN_RESULT_STATE_SHIFT)) | (static_cast<uint32_t>(lState) & 0xFU)
                                                                 << TARN_RESULT_STATE_SHIFT;
}

static_assert(PackVerdict(0x12345678U, 48, 2) == 0x0002003012345678, "stored layout");
static_assert(VerdictEngineCode(PackVerdict(~0U, -3, -1)) == -3 && VerdictVirusIndex(PackVerdict(0, 0, -1)) == -1);

#endif
