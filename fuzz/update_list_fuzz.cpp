// Any bytes as the deciphered list: only digests that stand in it come out, and nothing is read past its end.
#include "agent/update_list.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

void Require(bool bHolds) {
    if (!bHolds) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nSize) {
    std::vector<char> vecText(pData, pData + nSize);
    const std::string strPlain(vecText.begin(), vecText.end());

    // Enciphering and deciphering are the same operation.
    ParseMemToChar(vecText.data(), vecText.size());
    ParseMemToChar(vecText.data(), vecText.size());
    Require(std::equal(vecText.begin(), vecText.end(), strPlain.begin(), strPlain.end()));

    const size_t nPiece = nSize == 0 ? 1 : 1 + pData[0] % 70U;
    std::string_view left = strPlain;
    CListText text([&left, nPiece] {
        const std::string_view piece = left.substr(0, nPiece);
        left.remove_prefix(piece.size());
        return piece;
    });
    char szVersionId[kVersionIdSize] = {};
    if (!text.ReadVersion(szVersionId)) {
        return 0;
    }
    char szDigest[kDigestTextSize] = {};
    while (text.NextDigest(szDigest)) {
        const std::string strDigest(szDigest);
        Require(strDigest.size() < kDigestTextSize && strPlain.find(strDigest) != std::string::npos);
        CacheMD5 md5 = {};
        const bool bHex =
            strDigest.size() == kDigestTextSize - 1 &&
            std::all_of(strDigest.begin(), strDigest.end(), [](unsigned char ch) { return std::isxdigit(ch) != 0; });
        Require(ParseDigest(szDigest, md5) == bHex);
    }
    return 0;
}
