// The enciphered list of withdrawn digests, as an updater leaves it for the cache.
#ifndef TARN_TOOLS_CACHE_WITHDRAWN_LIST_H
#define TARN_TOOLS_CACHE_WITHDRAWN_LIST_H

#include "tools/cache/install_root.h"

#include <string>

// Enciphers or deciphers the list.
void EncipherList(const std::string &strKey, std::string &strText);

// Reads the pending list with the key in the installation folder; strDigests gets the lines behind the version line.
// False with the reason in strError when there is none (bMissing), or when it holds no version line or not one
// digest: with another key the text mostly looks like that, and the cache would either keep it for good or, by chance,
// throw it away unused.
bool ReadPendingList(const CInstallRoot &root, std::string &strDigests, bool &bMissing, std::string &strError);

#endif
