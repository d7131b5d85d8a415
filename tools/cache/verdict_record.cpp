#include "tools/cache/verdict_record.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace {

constexpr uint32_t kStateInfected = 1;
constexpr uint32_t kInfectedBit = 1u << 18;
constexpr uint32_t kLowTagBits = 0x1F; // 5 bits from bit 8 on; the other 13 from bit 19 on
constexpr int kLowTagShift = 8;
constexpr int kHighTagShift = 19 - 5;
constexpr uint32_t kTagBits = 0xFFF81F00;

} // namespace

EFileType TypeOfFlags(uint32_t ulFlags) {
    return static_cast<EFileType>(TARN_FILE_TYPE(ulFlags));
}

uint32_t SignatureTag(std::string_view fingerprint) {
    uint32_t ulNumber = 0;
    (void)std::from_chars(fingerprint.data(), fingerprint.data() + std::min<size_t>(fingerprint.size(), 8), ulNumber,
                          16);
    return (ulNumber & kLowTagBits) << kLowTagShift | (ulNumber & ~kLowTagBits) << kHighTagShift;
}

_SCAN_FILE_RESULT ToRecord(const _FileVerdict &verdict, uint32_t ulTag) {
    _SCAN_FILE_RESULT record = {};
    record.lEngineCode = kEngineCode;
    record.ulFlags = static_cast<uint32_t>(verdict.eType) | ulTag;
    if (verdict.eVerdict == EVerdict::Infected) {
        record.ulFlags |= kInfectedBit | (kStateInfected << TARN_RESULT_STATE_SHIFT);
        const std::string strName = StoredName(verdict.strName);
        std::memcpy(record.szVirusDesc, strName.data(), strName.size());
    }
    return record;
}

bool FromRecord(const _SCAN_FILE_RESULT &record, const char *pszMD5, uint32_t ulTag, _FileVerdict &verdict) {
    const uint32_t ulFlags = record.ulFlags;
    const uint32_t ulState = TARN_RESULT_STATE(ulFlags);
    const bool bInfected = ulState == kStateInfected;
    verdict.eVerdict = bInfected ? EVerdict::Infected : EVerdict::Clean;
    verdict.strName.assign(record.szVirusDesc, strnlen(record.szVirusDesc, TARN_VIRUS_DESC_SIZE));
    verdict.eType = TypeOfFlags(ulFlags);
    verdict.strMD5 = pszMD5;
    return record.lEngineCode == kEngineCode && (ulFlags & kTagBits) == ulTag &&
           bInfected == ((ulFlags & kInfectedBit) != 0) && bInfected == !verdict.strName.empty() &&
           (bInfected || ulState == 0);
}
