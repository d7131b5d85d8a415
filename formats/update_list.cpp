#include "formats/update_list.h"

#include <algorithm>

namespace {

constexpr size_t kBlockSize = 256; // bytes after which the key stream begins anew
constexpr int kEnd = -1;

} // namespace

void CipherUpdateList(char *pList, size_t nSize,
                      const std::function<void(unsigned char *pBlock, size_t nBytes)> &cipherBlock) {
    auto *pBytes = reinterpret_cast<unsigned char *>(pList);
    for (size_t nOffset = 0; nOffset < nSize; nOffset += kBlockSize) {
        cipherBlock(pBytes + nOffset, std::min(kBlockSize, nSize - nOffset));
    }
}

int CListText::Next() {
    if (m_rest.empty() && !m_bEnd) {
        const std::optional<std::string_view> piece = m_source();
        m_bBrokenOff = !piece.has_value();
        m_rest = piece.value_or(std::string_view());
    }
    m_bEnd = m_bEnd || m_rest.empty() || m_rest.front() == '\0';
    if (m_bEnd) {
        return kEnd;
    }
    const int iChar = static_cast<unsigned char>(m_rest.front());
    m_rest.remove_prefix(1);
    return iChar;
}

bool CListText::ReadVersion(char (&szVersionId)[kVersionIdSize]) {
    bool bColon = false;
    size_t nLength = 0; // of the ID, all of it
    int iLast = 0;
    int iChar = Next();
    for (; iChar != '\n' && iChar != kEnd; iChar = Next()) {
        if (bColon) {
            szVersionId[std::min(nLength++, kVersionIdSize - 1)] = static_cast<char>(iChar);
            iLast = iChar;
        }
        bColon = bColon || iChar == ':';
    }
    nLength -= iLast == '\r' ? 1 : 0;
    szVersionId[std::min(nLength, kVersionIdSize - 1)] = '\0';
    return bColon && iChar == '\n';
}

bool CListText::NextDigest(char (&szDigest)[kDigestTextSize]) {
    int iChar = Next();
    while (iChar == '\n') {
        iChar = Next();
    }
    size_t nLength = 0;
    for (; iChar != '\n' && iChar != kEnd; iChar = Next()) {
        if (nLength < kMD5Digits) {
            szDigest[nLength++] = static_cast<char>(iChar);
        }
    }
    szDigest[nLength] = '\0';
    return nLength > 0;
}
