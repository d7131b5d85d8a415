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

    vecText.push_back('\0');
    char szVersionId[kVersionIdSize] = {};
    char *pszDigests = SplitVersionLine(vecText.data(), szVersionId);
    if (pszDigests == nullptr) {
        return 0;
    }
    Require(szVersionId[kVersionIdSize - 1] == '\0');
    CDigestLines lines(pszDigests);
    char szDigest[kDigestTextSize] = {};
    while (lines.Next(szDigest)) {
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
