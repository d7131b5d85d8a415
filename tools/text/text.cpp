#include "tools/text/text.h"

#include <array>
#include <cstdio>
#include <system_error>

std::string LowerCase(std::string_view text) {
    std::string strOut(text);
    for (char &ch : strOut) {
        if (ch >= 'A' && ch <= 'Z') {
            ch = static_cast<char>(ch - 'A' + 'a');
        }
    }
    return strOut;
}

std::string BytesText(uint64_t ullBytes) {
    constexpr std::array<const char *, 6> kUnits = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (ullBytes < 1024) {
        return std::to_string(ullBytes);
    }
    double value = static_cast<double>(ullBytes) / 1024.0;
    size_t nUnit = 0;
    for (; value >= 1024.0 && nUnit + 1 < kUnits.size(); ++nUnit) {
        value /= 1024.0;
    }
    char szUnit[64] = {};
    (void)std::snprintf(szUnit, sizeof(szUnit), " (%.1f %s)", value, kUnits[nUnit]);
    return std::to_string(ullBytes) + szUnit;
}

std::string DurationText(double seconds) {
    const auto ullTotal = static_cast<uint64_t>(seconds < 0 ? 0 : seconds + 0.5);
    const auto ullHours = static_cast<unsigned long long>(ullTotal / 3600);
    const auto ulMinutes = static_cast<uint32_t>(ullTotal / 60 % 60);
    const auto ulSeconds = static_cast<uint32_t>(ullTotal % 60);
    char szText[64] = {};
    if (ullHours != 0) {
        (void)std::snprintf(szText, sizeof(szText), "%llu:%02u:%02u", ullHours, ulMinutes, ulSeconds);
    } else {
        (void)std::snprintf(szText, sizeof(szText), "%u:%02u", ulMinutes, ulSeconds);
    }
    return szText;
}

std::string ErrnoText(std::string_view path, int iError) {
    return EscapeName(path) + ": " + std::generic_category().message(iError);
}
