// The key of the withdrawn-digest list: 14 bytes, kept in hexadecimal in the product's business values.
#ifndef TARN_TOOLS_CACHE_BUSINESS_KEY_H
#define TARN_TOOLS_CACHE_BUSINESS_KEY_H

#include <string>

// Makes a random key where the file or its entry is missing (mode 0600, written whole or not at all). A key that is
// there is never changed, and a file that cannot be read or is open to other users is left alone. False with the
// reason in strError.
bool EnsureBusinessKey(const std::string &strPath, std::string &strError);

// Reads the 14 bytes. False when the file is missing, open to other users, or holds no such key.
bool ReadBusinessKey(const std::string &strPath, std::string &strKey, std::string &strError);

#endif
