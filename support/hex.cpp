#include "support/hex.h"

#include <nettle/base16.h>

void EncodeHex(std::string_view bytes, char *pszDigits) noexcept {
    base16_encode_update(pszDigits, bytes.size(), reinterpret_cast<const uint8_t *>(bytes.data()));
}

bool DecodeHex(std::string_view digits, void *pBytes) noexcept {
    // The decoder skips white space and writes what stands before an error, so the digits are looked at first.
    if (digits.size() % 2 != 0 || !IsHexText(digits)) {
        return false;
    }
    base16_decode_ctx context;
    base16_decode_init(&context);
    size_t nDecoded = 0;
    return base16_decode_update(&context, &nDecoded, static_cast<uint8_t *>(pBytes), digits.size(), digits.data()) == 1;
}

std::string HexText(std::string_view bytes) {
    std::string strDigits(BASE16_ENCODE_LENGTH(bytes.size()), '\0');
    EncodeHex(bytes, strDigits.data());
    return strDigits;
}

bool FromHexText(std::string_view digits, std::string &strBytes) {
    strBytes.resize(digits.size() / 2);
    const bool bDecoded = DecodeHex(digits, strBytes.data());
    strBytes.resize(bDecoded ? strBytes.size() : 0);
    return bDecoded;
}
