// scan_result.h - the bytes of the caller's scan verdict that the cache reads and writes.
//
// The record is packed and mostly the caller's own, so it is reached by offset and by copying, never through aligned
// fields. interface/tarncache.cpp pins these offsets to the public record.
#ifndef TARN_UTIL_SCAN_RESULT_H
#define TARN_UTIL_SCAN_RESULT_H

#include <cstddef>
#include <cstdint>
#include <cstring>

struct _SCAN_FILE_RESULT;

constexpr size_t kScanEngineCodeOffset = 8;   // 32-bit signed
constexpr size_t kScanFlagsOffset = 13;       // 32-bit unsigned; its low byte is the file type
constexpr size_t kScanVirusDescOffset = 105;  // text
constexpr size_t kScanVirusDescSize = 64;     // bytes with the NUL
constexpr uint32_t kResultStateShift = 13;    // 5-bit result state inside the flag word
constexpr uint32_t kResultStateMask = 0x1FU;  // width of the field
constexpr uint32_t kResultStateStored = 0xFU; // the cache keeps 4 of its bits

inline const char *ScanVirusDesc(const _SCAN_FILE_RESULT *pResult) {
    return reinterpret_cast<const char *>(pResult) + kScanVirusDescOffset;
}
inline char *ScanVirusDesc(_SCAN_FILE_RESULT *pResult) {
    return reinterpret_cast<char *>(pResult) + kScanVirusDescOffset;
}

inline int32_t ScanEngineCode(const _SCAN_FILE_RESULT *pResult) {
    int32_t lCode = 0;
    std::memcpy(&lCode, reinterpret_cast<const char *>(pResult) + kScanEngineCodeOffset, sizeof lCode);
    return lCode;
}
inline void SetScanEngineCode(_SCAN_FILE_RESULT *pResult, int32_t lCode) {
    std::memcpy(reinterpret_cast<char *>(pResult) + kScanEngineCodeOffset, &lCode, sizeof lCode);
}

inline uint32_t ScanFlags(const _SCAN_FILE_RESULT *pResult) {
    uint32_t ulFlags = 0;
    std::memcpy(&ulFlags, reinterpret_cast<const char *>(pResult) + kScanFlagsOffset, sizeof ulFlags);
    return ulFlags;
}
inline void SetScanFlags(_SCAN_FILE_RESULT *pResult, uint32_t ulFlags) {
    std::memcpy(reinterpret_cast<char *>(pResult) + kScanFlagsOffset, &ulFlags, sizeof ulFlags);
}

// The 4 kept bits of the result state.
constexpr int32_t ResultStateOf(uint32_t ulFlags) {
    return static_cast<int32_t>(ulFlags >> kResultStateShift & kResultStateStored);
}
// The flag word with its whole 5-bit field replaced, so that the top bit always comes back clear.
constexpr uint32_t WithResultState(uint32_t ulFlags, int32_t lState) {
    return (ulFlags & ~(kResultStateMask << kResultStateShift)) | (static_cast<uint32_t>(lState) & kResultStateStored)
                                                                      << kResultStateShift;
}

#endif
