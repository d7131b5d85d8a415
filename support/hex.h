// hex.h - bytes as hexadecimal digits.
#ifndef TARN_SUPPORT_HEX_H
#define TARN_SUPPORT_HEX_H

#include <algorithm>
#include <string>
#include <string_view>

// True when all of the text is hexadecimal digits of either case, as in the empty text.
[[nodiscard]] constexpr bool IsHexText(std::string_view text) noexcept {
    return std::all_of(text.begin(), text.end(), [](char ch) {
        return (ch >= '0' && ch <= '9') || (ch >= 'a' && ch <= 'f') || (ch >= 'A' && ch <= 'F');
    });
}

// Writes two lower-case digits for each byte and no NUL.
void EncodeHex(std::string_view bytes, char *pszDigits) noexcept;

// Writes a byte for each two digits. False, with nothing written, when the text is anything else than pairs of digits.
[[nodiscard]] bool DecodeHex(std::string_view digits, void *pBytes) noexcept;

// The same on strings. FromHexText leaves strBytes empty when it fails.
[[nodiscard]] std::string HexText(std::string_view bytes);
[[nodiscard]] bool FromHexText(std::string_view digits, std::string &strBytes);

#endif
