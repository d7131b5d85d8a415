// md5_text.h - what counts as the text of an MD5.
#ifndef TARN_FORMATS_MD5_TEXT_H
#define TARN_FORMATS_MD5_TEXT_H

#include "support/hex.h"

constexpr size_t kMD5Digits = 32;

// Exactly 32 hexadecimal digits of either case.
[[nodiscard]] constexpr bool IsMD5Text(std::string_view text) noexcept {
    return text.size() == kMD5Digits && IsHexText(text);
}

#endif
