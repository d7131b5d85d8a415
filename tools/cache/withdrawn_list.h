// The enciphered list of withdrawn digests, as an updater leaves it for the cache.
#ifndef TARN_TOOLS_CACHE_WITHDRAWN_LIST_H
#define TARN_TOOLS_CACHE_WITHDRAWN_LIST_H

#include "tools/cache/install_root.h"
#include "tools/cache/small_file.h"

#include <string>

// Enciphers or deciphers the list.
void EncipherList(const std::string &strKey, std::string &strText);

// Reads the pending list with the key in the installation folder; strDigests gets the lines behind the version line.
// It fails, with the reason in strError, also when the list holds no version line or not one digest: with another key
// the text mostly looks like that.
EReadFile ReadPendingList(const CInstallRoot &root, std::string &strDigests, std::string &strError);

// Why the pending list is of no use, as far as can be told, and what to do about it.
std::string UnfitListText(const CInstallRoot &root);

#endif
