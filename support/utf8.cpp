#include "support/utf8.h"

#include "support/hex.h"

#include <cstdint>

namespace {

// Length of the UTF-8 sequence that text begins with, its code point in ulCodePoint; 0 when it is none. Overlong forms,
// surrogates and values above U+10FFFF are none.
size_t DecodeUtf8(std::string_view text, uint32_t &ulCodePoint) {
    const auto byteAt = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byteAt(0);
    const size_t nLength = lead < 0x80 ? 1 : lead < 0xc2 ? 0 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : lead < 0xf5 ? 4 : 0;
    if (nLength < 2 || text.size() < nLength) {
        ulCodePoint = lead;
        return nLength == 1 ? 1 : 0;
    }
    ulCodePoint = lead & (0x7fU >> nLength);
    for (size_t i = 1; i < nLength; ++i) {
        if ((byteAt(i) & 0xc0) != 0x80) {
            return 0;
        }
        ulCodePoint = (ulCodePoint << 6) | (byteAt(i) & 0x3fU);
    }
    const bool bOverlong = (nLength == 3 && ulCodePoint < 0x800) || (nLength == 4 && ulCodePoint < 0x10000);
    const bool bSurrogate = ulCodePoint >= 0xd800 && ulCodePoint <= 0xdfff;
    return bOverlong || bSurrogate || ulCodePoint > 0x10ffff ? 0 : nLength;
}

// Characters that neither start a line, steer a terminal, nor reorder or hide the text around them.
bool IsPlain(uint32_t ulCodePoint) {
    const auto within = [ulCodePoint](uint32_t ulLow, uint32_t ulHigh) {
        return ulCodePoint >= ulLow && ulCodePoint <= ulHigh;
    };
    const bool bControl = ulCodePoint < 0x20 || within(0x7f, 0x9f);
    const bool bInvisible = within(0x200b, 0x200f) || within(0x2028, 0x202e) || within(0x2060, 0x206f) ||
                            ulCodePoint == 0xfeff || within(0xe0000, 0xe007f);
    return ulCodePoint != '\\' && !bControl && !bInvisible;
}

void AppendEscapedByte(std::string &strOut, char byte) {
    constexpr std::string_view kNamed = "\\\n\t\r";
    constexpr std::string_view kNames = "\\ntr";
    strOut += '\\';
    if (const size_t nNamed = kNamed.find(byte); nNamed != std::string_view::npos) {
        strOut += kNames[nNamed];
        return;
    }
    char szDigits[2] = {};
    EncodeHex({&byte, 1}, szDigits);
    strOut += 'x';
    strOut.append(szDigits, sizeof szDigits);
}

} // namespace

bool IsValidUtf8(std::string_view text) noexcept {
    uint32_t ulCodePoint = 0;
    size_t nLength = 1;
    while (!text.empty() && nLength > 0) {
        nLength = DecodeUtf8(text, ulCodePoint);
        text.remove_prefix(nLength);
    }
    return text.empty();
}

void AppendEscaped(std::string &strOut, std::string_view text) {
    while (!text.empty()) {
        uint32_t ulCodePoint = 0;
        const size_t nLength = DecodeUtf8(text, ulCodePoint);
        if (nLength > 0 && IsPlain(ulCodePoint)) {
            strOut.append(text.substr(0, nLength));
            text.remove_prefix(nLength);
        } else { // a sequence's other bytes follow one by one, since none of them begins another
            AppendEscapedByte(strOut, text.front());
            text.remove_prefix(1);
        }
    }
}

std::string EscapeName(std::string_view name) {
    std::string strOut;
    strOut.reserve(name.size());
    AppendEscaped(strOut, name);
    return strOut;
}
