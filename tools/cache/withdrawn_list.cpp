#include "tools/cache/withdrawn_list.h"

#include "formats/update_list.h"
#include "tools/cache/business_key.h"
#include "tools/text/text.h"

#include <cstring>
#include <nettle/arcfour.h>

namespace {

bool HoldsDigest(std::string_view text) {
    CListText lines(text);
    char szDigest[kDigestTextSize] = {};
    while (lines.NextDigest(szDigest)) {
        if (IsMD5Text(szDigest)) {
            return true;
        }
    }
    return false;
}

} // namespace

void EncipherList(const std::string &strKey, std::string &strText) {
    arcfour_ctx keyed = {};
    arcfour_set_key(&keyed, strKey.size(), reinterpret_cast<const uint8_t *>(strKey.data()));
    CipherUpdateList(strText.data(), strText.size(), [&keyed](unsigned char *pBlock, size_t nBytes) {
        arcfour_ctx cipher = keyed;
        arcfour_crypt(&cipher, nBytes, pBlock, pBlock);
    });
}

EReadFile ReadPendingList(const CInstallRoot &root, std::string &strDigests, std::string &strError) {
    const EReadFile eFile = ReadSmallFile(root.WithdrawnList(), kMaxUpdateListSize, strDigests, strError);
    if (eFile != EReadFile::Read) {
        return eFile;
    }
    std::string strKey;
    if (!ReadBusinessKey(root.KeyFile(), strKey, strError)) {
        return EReadFile::Failed;
    }
    EncipherList(strKey, strDigests);
    strDigests.resize(std::strlen(strDigests.c_str())); // a NUL ends the list
    char szVersionId[kVersionIdSize] = {};
    CListText text(strDigests);
    strDigests.erase(0, text.ReadVersion(szVersionId) ? strDigests.size() - text.Rest().size() : std::string::npos);
    if (HoldsDigest(strDigests)) {
        return EReadFile::Read;
    }
    strError = UnfitListText(root);
    return EReadFile::Failed;
}

std::string UnfitListText(const CInstallRoot &root) {
    return EscapeName(root.WithdrawnList()) + " is pending and does not open with the key in " +
           EscapeName(root.KeyFile()) + "; put the right key there, or remove the list and withdraw again";
}
