#include "tools/engine/file_verdict.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>

namespace {

constexpr int32_t kEngineCode = 48; // the engine whose records the marker clean_engine_flag drops
constexpr uint32_t kStateMask = 0x1F;
constexpr uint32_t kStateInfected = 1;
constexpr uint32_t kInfectedBit = 1u << 18;
constexpr uint32_t kLowTagBits = 0x1F; // 5 bits from bit 8 on; the other 13 from bit 19 on
constexpr int kLowTagShift = 8;
constexpr int kHighTagShift = 19 - 5;
constexpr uint32_t kTagBits = 0xFFF81F00;

struct _TypeRule {
    std::string_view prefix;
    EFileType eType;
};

// First match wins; types that are not listed are EFileType::Other.
constexpr std::array<_TypeRule, 50> kTypeRules = {{
    {"ELF", EFileType::Elf},           {"MACHO", EFileType::Executable},  {"MSEXE", EFileType::Executable},
    {"MSCOFF", EFileType::Executable}, {"TEXT", EFileType::Text},         {"SCRIPT", EFileType::Text},
    {"PYTHON", EFileType::Text},       {"HTML", EFileType::Html},         {"XML", EFileType::Html},
    {"MAIL", EFileType::Mail},         {"TNEF", EFileType::Mail},         {"MSOLE2", EFileType::Document},
    {"OOXML", EFileType::Document},    {"PDF", EFileType::Document},      {"RTF", EFileType::Document},
    {"PS", EFileType::Document},       {"HWP", EFileType::Document},      {"ONENOTE", EFileType::Document},
    {"MSCHM", EFileType::Document},    {"INTERNAL", EFileType::Other},    {"GRAPHICS", EFileType::Media},
    {"GIF", EFileType::Media},         {"PNG", EFileType::Media},         {"JPEG", EFileType::Media},
    {"TIFF", EFileType::Media},        {"BMP", EFileType::Media},         {"MP3", EFileType::Media},
    {"RIFF", EFileType::Media},        {"SWF", EFileType::Media},         {"7Z", EFileType::Archive},
    {"ARJ", EFileType::Archive},       {"AUTOIT", EFileType::Archive},    {"BZ", EFileType::Archive},
    {"CPIO", EFileType::Archive},      {"DMG", EFileType::Archive},       {"EGG", EFileType::Archive},
    {"GZ", EFileType::Archive},        {"ISHIELD", EFileType::Archive},   {"ISO9660", EFileType::Archive},
    {"MSCAB", EFileType::Archive},     {"MSSZDD", EFileType::Archive},    {"NULSFT", EFileType::Archive},
    {"OLD_TAR", EFileType::Archive},   {"POSIX_TAR", EFileType::Archive}, {"RAR", EFileType::Archive},
    {"SIS", EFileType::Archive},       {"UDF", EFileType::Archive},       {"XAR", EFileType::Archive},
    {"XZ", EFileType::Archive},        {"ZIP", EFileType::Archive},
}};

} // namespace

std::string StoredName(std::string_view name) {
    std::string strName(name.substr(0, TARN_VIRUS_DESC_SIZE - 1));
    std::replace(strName.begin(), strName.end(), '"', '\'');
    return strName;
}

EFileType TypeOf(std::string_view engineType) {
    constexpr std::string_view prefix = "CL_TYPE_";
    if (engineType.starts_with(prefix)) {
        engineType.remove_prefix(prefix.size());
    }
    const auto *const pRule = std::find_if(kTypeRules.begin(), kTypeRules.end(),
                                           [&](const _TypeRule &rule) { return engineType.starts_with(rule.prefix); });
    return pRule == kTypeRules.end() ? EFileType::Other : pRule->eType;
}

EFileType TypeOfFlags(uint32_t ulFlags) {
    return static_cast<EFileType>(ulFlags & 0xFFu);
}

const char *TypeName(EFileType eType) {
    constexpr std::array<const char *, 10> names = {"other",   "other",    "elf",  "executable", "text",
                                                    "archive", "document", "html", "mail",       "media"};
    const auto index = static_cast<size_t>(eType);
    return index < names.size() ? names[index] : "other";
}

const char *VerdictName(EVerdict eVerdict) {
    constexpr std::array<const char *, 6> names = {"clean",     "infected", "limit exceeded",
                                                   "timed out", "error",    "interrupted"};
    return names[static_cast<size_t>(eVerdict)];
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
    const uint32_t ulState = (ulFlags >> TARN_RESULT_STATE_SHIFT) & kStateMask;
    const bool bInfected = ulState == kStateInfected;
    verdict.eVerdict = bInfected ? EVerdict::Infected : EVerdict::Clean;
    verdict.strName.assign(record.szVirusDesc, strnlen(record.szVirusDesc, TARN_VIRUS_DESC_SIZE));
    verdict.eType = TypeOfFlags(ulFlags);
    verdict.strMD5 = pszMD5;
    return record.lEngineCode == kEngineCode && (ulFlags & kTagBits) == ulTag &&
           bInfected == ((ulFlags & kInfectedBit) != 0) && bInfected == !verdict.strName.empty() &&
           (bInfected || ulState == 0);
}
