#include "agent/update_list.h"

#include "formats/business_values.h"
#include "platform/tarncore.h"
#include "util/log.h"

#include <cstring>

namespace {

constexpr char kLogSource[] = "dbagent";
constexpr int kKeyLength = static_cast<int>(kKeySize);

} // namespace

void ParseMemToChar(char *buffer, size_t size) {
    if (buffer == nullptr) {
        TARN_LOG_SEVERE("[%s]arg pBuffer is null");
        return;
    }
    unsigned char abKey[kKeyLength + 1] = {};
    (void)get_business_value(kKeySection, kKeyName, 0, 0, abKey, kKeyLength); // without a key the text is no list
    RC4_STATE keyedState = {};
    RC4_set_key(&keyedState, kKeyLength, abKey);
    CipherUpdateList(buffer, size, [&keyedState](unsigned char *pBlock, size_t nBytes) {
        RC4_STATE workingState = keyedState;
        RC4_crypt(&workingState, nBytes, pBlock, pBlock);
        explicit_bzero(&workingState, sizeof workingState);
    });
    explicit_bzero(abKey, sizeof abKey);
    explicit_bzero(&keyedState, sizeof keyedState);
}

bool ParseDigest(const char (&szDigest)[kDigestTextSize], CacheMD5 &md5) {
    // Text that is not hexadecimal would turn into 16 zero bytes and withdraw records that nobody named.
    if (!IsMD5Text(szDigest)) {
        return false;
    }
    (void)MD5_StrResultConvert(szDigest, &md5);
    return true;
}
