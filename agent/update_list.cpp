#include "agent/update_list.h"

#include "platform/tarncore.h"
#include "util/log.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr char kLogSource[] = "dbagent";
constexpr size_t kBlockSize = 256; // bytes that one keyed state deciphers
constexpr int kKeyLength = 14;
constexpr size_t kDigestLength = kDigestTextSize - 1;

} // namespace

void ParseMemToChar(char *buffer, size_t size) {
    if (buffer == nullptr) {
        TARN_LOG_SEVERE("[%s]arg pBuffer is null");
        return;
    }
    unsigned char abKey[kKeyLength + 1] = {};
    (void)get_business_value("avscan", "mor_secret", 0, 0, abKey, kKeyLength); // without a key the text is no list
    RC4_STATE keyedState = {};
    RC4_set_key(&keyedState, kKeyLength, abKey);
    auto *pBytes = reinterpret_cast<unsigned char *>(buffer);
    for (size_t nOffset = 0; nOffset < size; nOffset += kBlockSize) {
        RC4_STATE workingState = keyedState;
        RC4_crypt(&workingState, std::min(kBlockSize, size - nOffset), pBytes + nOffset, pBytes + nOffset);
        explicit_bzero(&workingState, sizeof workingState);
    }
    explicit_bzero(abKey, sizeof abKey);
    explicit_bzero(&keyedState, sizeof keyedState);
}

char *SplitVersionLine(char *text, char (&versionId)[kVersionIdSize]) {
    char *pszColon = std::strchr(text, ':');
    char *pszLineEnd = std::strchr(text, '\n');
    if (pszColon == nullptr || pszLineEnd == nullptr || pszColon > pszLineEnd) {
        return nullptr;
    }
    const char *pszId = pszColon + 1;
    auto nLength = static_cast<size_t>(pszLineEnd - pszId);
    if (nLength > 0 && pszId[nLength - 1] == '\r') {
        --nLength;
    }
    nLength = std::min(nLength, kVersionIdSize - 1);
    std::memcpy(versionId, pszId, nLength);
    versionId[nLength] = '\0';
    return pszLineEnd + 1;
}

bool CDigestLines::Next(char (&digest)[kDigestTextSize]) {
    const char *pszLine = strtok_r(m_pszNext, "\n", &m_pszPlace);
    m_pszNext = nullptr;
    if (pszLine == nullptr) {
        return false;
    }
    const size_t nLength = strnlen(pszLine, kDigestLength);
    std::memcpy(digest, pszLine, nLength);
    digest[nLength] = '\0';
    return true;
}

bool ParseDigest(const char (&digest)[kDigestTextSize], CacheMD5 &md5) {
    // Text that is not hexadecimal would turn into 16 zero bytes and withdraw records that nobody named.
    if (std::strspn(digest, "0123456789abcdefABCDEF") != kDigestLength) {
        return false;
    }
    (void)MD5_StrResultConvert(digest, &md5);
    return true;
}
