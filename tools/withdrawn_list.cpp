#include "tools/withdrawn_list.h"

#include "tools/atomic_file.h"
#include "tools/business_key.h"
#include "tools/text.h"

#include <nettle/arcfour.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace {

constexpr size_t kCipherBlock = 256; // bytes after which the key stream begins anew
constexpr size_t kDigestLength = 32; // the cache cuts longer lines

bool HoldsDigest(std::string_view lines) {
    while (!lines.empty()) {
        const size_t length = std::min(lines.find('\n'), lines.size());
        if (IsMD5Text(lines.substr(0, std::min(length, kDigestLength))))
            return true;
        lines.remove_prefix(std::min(length + 1, lines.size()));
    }
    return false;
}

} // namespace

void EncipherList(const std::string &strKey, std::string &strText) {
    arcfour_ctx cipher;
    arcfour_set_key(&cipher, strKey.size(), reinterpret_cast<const uint8_t *>(strKey.data()));
    std::array<uint8_t, kCipherBlock> stream{};
    arcfour_crypt(&cipher, stream.size(), stream.data(), stream.data());
    for (size_t index = 0; index < strText.size(); ++index)
        strText[index] = static_cast<char>(static_cast<uint8_t>(strText[index]) ^ stream[index % kCipherBlock]);
}

bool ReadPendingList(const CInstallRoot &root, std::string &strDigests, bool &bMissing, std::string &strError) {
    std::string strKey;
    if (!ReadWholeFile(root.WithdrawnList(), kLargestWithdrawnList, strDigests, bMissing, strError) ||
        !ReadBusinessKey(root.KeyFile(), strKey, strError))
        return false;
    EncipherList(strKey, strDigests);
    strDigests.resize(std::min(strDigests.find('\0'), strDigests.size()));
    const size_t lineEnd = strDigests.find('\n');
    const bool bVersion = lineEnd != std::string::npos && strDigests.find(':') < lineEnd;
    strDigests.erase(0, bVersion ? lineEnd + 1 : std::string::npos);
    if (HoldsDigest(strDigests))
        return true;
    strError = EscapeName(root.WithdrawnList()) + " is pending and does not open with the key in " +
               EscapeName(root.KeyFile()) + "; put the right key there, or remove the list and withdraw again";
    return false;
}
