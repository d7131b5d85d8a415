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

    // In pieces of any size the text reads as it does whole.
    const size_t nPiece = nSize == 0 ? 1 : 1 + pData[0] % 70U;
    std::string_view left = strPlain;
    CListText pieces([&left, nPiece] {
        const std::string_view piece = left.substr(0, nPiece);
        left.remove_prefix(piece.size());
        return piece;
    });
    CListText whole = CListText(std::string_view(strPlain));
    char szVersionId[kVersionIdSize] = {};
    char szSameId[kVersionIdSize] = {};
    const bool bVersion = whole.ReadVersion(szVersionId);
    Require(pieces.ReadVersion(szSameId) == bVersion && std::string_view(szVersionId) == szSameId);
    if (!bVersion) {
        return 0;
    }
    char szDigest[kDigestTextSize] = {};
    char szSame[kDigestTextSize] = {};
    while (whole.NextDigest(szDigest)) {
        Require(pieces.NextDigest(szSame) && std::string_view(szDigest) == szSame);
        const std::string strDigest(szDigest);
        Require(strDigest.size() < kDigestTextSize && strPlain.find(strDigest) != std::string::npos);
        CacheMD5 md5 = {};
        const bool bHex =
            strDigest.size() == kDigestTextSize - 1 &&
            std::all_of(strDigest.begin(), strDigest.end(), [](unsigned char ch) { return std::isxdigit(ch) != 0; });
        Require(ParseDigest(szDigest, md5) == bHex);
    }
    Require(!pieces.NextDigest(szSame) && !pieces.IsBrokenOff());
    return 0;
}
