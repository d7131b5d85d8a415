#include "tools/text.h"

#include <array>
#include <cstdio>
#include <system_error>

namespace {

// Length of the well-formed UTF-8 sequence at the start of text, 0 when there is none. *codePoint gets its value.
size_t Utf8Sequence(std::string_view text, uint32_t &codePoint) {
    const auto byteAt = [&](size_t index) { return static_cast<uint8_t>(text[index]); };
    const uint8_t first = byteAt(0);
    if (first < 0x80) {
        codePoint = first;
        return 1;
    }
    const size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length)
        return 0;
    codePoint = first & (0x7Fu >> length);
    for (size_t index = 1; index < length; ++index) {
        if ((byteAt(index) & 0xC0) != 0x80)
            return 0;
        codePoint = (codePoint << 6) | (byteAt(index) & 0x3Fu);
    }
    constexpr std::array<uint32_t, 5> smallest{0, 0, 0x80, 0x800, 0x10000};
    const bool bSurrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
    return codePoint < smallest[length] || codePoint > 0x10FFFF || bSurrogate ? 0 : length;
}

void AppendEscaped(std::string &out, char byte) {
    constexpr std::string_view digits = "0123456789abcdef";
    const auto value = static_cast<uint8_t>(byte);
    if (byte == '\\') {
        out += "\\\\";
    } else if (byte == '\n') {
        out += "\\n";
    } else if (byte == '\t') {
        out += "\\t";
    } else if (byte == '\r') {
        out += "\\r";
    } else {
        out += {'\\', 'x', digits[value >> 4], digits[value & 15]};
    }
}

// Not for characters that end a line, steer a terminal, or reorder or hide the text around them.
bool IsPlain(uint32_t codePoint) {
    const auto within = [codePoint](uint32_t low, uint32_t high) { return codePoint >= low && codePoint <= high; };
    return codePoint != '\\' && codePoint >= 0x20 && !within(0x7F, 0x9F) && !within(0x200B, 0x200F) &&
           !within(0x2028, 0x202E) && !within(0x2060, 0x206F) && codePoint != 0xFEFF && !within(0xE0000, 0xE007F);
}

int HexDigit(char digit) {
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    if (digit >= 'a' && digit <= 'f')
        return digit - 'a' + 10;
    return digit >= 'A' && digit <= 'F' ? digit - 'A' + 10 : -1;
}

} // namespace

bool IsValidUtf8(std::string_view text) {
    uint32_t codePoint = 0;
    while (!text.empty()) {
        const size_t length = Utf8Sequence(text, codePoint);
        if (length == 0)
            return false;
        text.remove_prefix(length);
    }
    return true;
}

std::string EscapeName(std::string_view name) {
    std::string out;
    out.reserve(name.size());
    while (!name.empty()) {
        uint32_t codePoint = 0;
        const size_t length = Utf8Sequence(name, codePoint);
        if (length != 0 && IsPlain(codePoint)) {
            out += name.substr(0, length);
        } else {
            for (const char byte : name.substr(0, length == 0 ? 1 : length))
                AppendEscaped(out, byte);
        }
        name.remove_prefix(length == 0 ? 1 : length);
    }
    return out;
}

std::string HexText(std::string_view bytes) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (const char byte : bytes) {
        const auto value = static_cast<uint8_t>(byte);
        out += digits[value >> 4];
        out += digits[value & 15];
    }
    return out;
}

bool FromHexText(std::string_view text, std::string &bytes) {
    bytes.clear();
    if (text.size() % 2 != 0)
        return false;
    for (size_t index = 0; index < text.size(); index += 2) {
        const int high = HexDigit(text[index]);
        const int low = HexDigit(text[index + 1]);
        if (high < 0 || low < 0)
            return false;
        bytes += static_cast<char>(high * 16 + low);
    }
    return true;
}

bool IsMD5Text(std::string_view text) {
    std::string bytes;
    return text.size() == 32 && FromHexText(text, bytes);
}

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
