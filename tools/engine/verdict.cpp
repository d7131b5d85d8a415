#include "tools/engine/verdict.h"

#include <tarncache.h>

#include <algorithm>
#include <array>

namespace {

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
    constexpr std::string_view kPrefix = "CL_TYPE_";
    if (engineType.starts_with(kPrefix)) {
        engineType.remove_prefix(kPrefix.size());
    }
    const auto *const pRule = std::find_if(kTypeRules.begin(), kTypeRules.end(),
                                           [&](const _TypeRule &rule) { return engineType.starts_with(rule.prefix); });
    return pRule == kTypeRules.end() ? EFileType::Other : pRule->eType;
}

const char *TypeName(EFileType eType) {
    constexpr std::array<const char *, 10> kNames = {"other",   "other",    "elf",  "executable", "text",
                                                     "archive", "document", "html", "mail",       "media"};
    const auto nIndex = static_cast<size_t>(eType);
    return nIndex < kNames.size() ? kNames[nIndex] : "other";
}

const char *VerdictName(EVerdict eVerdict) {
    constexpr std::array<const char *, 7> kNames = {"clean", "infected",    "limit exceeded", "timed out",
                                                    "error", "interrupted", "changed"};
    return kNames[static_cast<size_t>(eVerdict)];
}
