#include "tools/text.h"

#include <array>
#include <cstdio>
#include <system_error>

std::string LowerCase(std::string_view text) {
    std::string out(text);
    for (char &character : out) {
        if (character >= 'A' && character <= 'Z')
            character = static_cast<char>(character - 'A' + 'a');
    }
    return out;
}

std::string BytesText(uint64_t uBytes) {
    constexpr std::array<const char *, 6> units{"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (uBytes < 1024)
        return std::to_string(uBytes);
    double value = static_cast<double>(uBytes) / 1024.0;
    size_t unit = 0;
    for (; value >= 1024.0 && unit + 1 < units.size(); ++unit)
        value /= 1024.0;
    std::array<char, 64> buffer{};
    (void)std::snprintf(buffer.data(), buffer.size(), " (%.1f %s)", value, units[unit]);
    return std::to_string(uBytes) + buffer.data();
}

std::string DurationText(double seconds) {
    const auto total = static_cast<uint64_t>(seconds < 0 ? 0 : seconds + 0.5);
    std::array<char, 64> buffer{};
    const auto hours = static_cast<unsigned long long>(total / 3600);
    const auto minutes = static_cast<unsigned>(total / 60 % 60);
    const auto rest = static_cast<unsigned>(total % 60);
    if (hours != 0) {
        (void)std::snprintf(buffer.data(), buffer.size(), "%llu:%02u:%02u", hours, minutes, rest);
    } else {
        (void)std::snprintf(buffer.data(), buffer.size(), "%u:%02u", minutes, rest);
    }
    return buffer.data();
}

std::string ErrnoText(std::string_view path, int error) {
    return EscapeName(path) + ": " + std::generic_category().message(error);
}
