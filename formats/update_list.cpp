#include "formats/update_list.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr size_t kBlockSize = 256; // bytes after which the key stream begins anew

} // namespace

void CipherUpdateList(char *pList, size_t nSize,
                      const std::function<void(unsigned char *pBlock, size_t nBytes)> &cipherBlock) {
    auto *pBytes = reinterpret_cast<unsigned char *>(pList);
    for (size_t nOffset = 0; nOffset < nSize; nOffset += kBlockSize) {
        cipherBlock(pBytes + nOffset, std::min(kBlockSize, nSize - nOffset));
    }
}

char *SplitVersionLine(char *pszText, char (&szVersionId)[kVersionIdSize]) {
    char *pszColon = std::strchr(pszText, ':');
    char *pszLineEnd = std::strchr(pszText, '\n');
    if (pszColon == nullptr || pszLineEnd == nullptr || pszColon > pszLineEnd) {
        return nullptr;
    }
    const char *pszId = pszColon + 1;
    auto nLength = static_cast<size_t>(pszLineEnd - pszId);
    if (nLength > 0 && pszId[nLength - 1] == '\r') {
        --nLength;
    }
    nLength = std::min(nLength, kVersionIdSize - 1);
    std::memcpy(szVersionId, pszId, nLength);
    szVersionId[nLength] = '\0';
    return pszLineEnd + 1;
}

bool CDigestLines::Next(char (&szDigest)[kDigestTextSize]) {
    const char *pszLine = m_pszNext + std::strspn(m_pszNext, "\n");
    const size_t nLineLength = std::strcspn(pszLine, "\n");
    m_pszNext = pszLine + nLineLength;
    const size_t nLength = std::min(nLineLength, kMD5Digits);
    std::memcpy(szDigest, pszLine, nLength);
    szDigest[nLength] = '\0';
    return nLength > 0;
}
