#include "tools/cache/business_key.h"

#include "formats/business_values.h"
#include "support/hex.h"
#include "tools/cache/atomic_file.h"
#include "tools/text/text.h"

#define SI_NO_CONVERSION
#define SI_IMPLEMENTATION
#include <SimpleIni.h>

#include <cerrno>
#include <sys/random.h>

namespace {

constexpr size_t kLargestFile = 1U << 20; // bytes

// A missing file is an empty one; any other trouble is a failure.
bool LoadText(const std::string &strPath, std::string &strText, std::string &strError) {
    CDescriptor file;
    mode_t mode = 0;
    const EKeyFile eFile = OpenKeyFile(strPath.c_str(), file, mode);
    if (eFile == EKeyFile::Shared) {
        strError = EscapeName(strPath) + " is open to other users; it has to have mode 0600";
        return false;
    }
    if (eFile == EKeyFile::Unreadable && errno == ENOENT) {
        return true;
    }
    const int iError = eFile == EKeyFile::Unreadable ? errno : LoadWholeFile(file, kLargestFile, strText);
    if (iError != 0) {
        strError = ReadFailure(strPath, iError);
    }
    return iError == 0;
}

bool LoadStore(const std::string &strPath, CSimpleIniA &store, std::string &strError) {
    std::string strText;
    if (!LoadText(strPath, strText, strError)) {
        return false;
    }
    if (store.LoadData(strText.data(), strText.size()) >= 0) {
        return true;
    }
    strError = EscapeName(strPath) + " is not an ini file";
    return false;
}

bool RandomKey(std::string &strKey, std::string &strError) {
    strKey.resize(kKeySize);
    ssize_t nGot = 0;
    do {
        nGot = getrandom(strKey.data(), strKey.size(), 0);
    } while (nGot < 0 && errno == EINTR);
    if (nGot == static_cast<ssize_t>(strKey.size())) {
        return true;
    }
    strError = "the system gives no random numbers";
    return false;
}

} // namespace

bool EnsureBusinessKey(const std::string &strPath, std::string &strError) {
    CSimpleIniA store;
    if (!LoadStore(strPath, store, strError)) {
        return false;
    }
    if (store.GetValue(kKeySection, kKeyName) != nullptr) {
        return true;
    }
    std::string strKey;
    if (!RandomKey(strKey, strError)) {
        return false;
    }
    std::string strText;
    if (store.SetValue(kKeySection, kKeyName, HexText(strKey).c_str()) < 0 || store.Save(strText) < 0) {
        strError = "cannot add a key to " + EscapeName(strPath);
        return false;
    }
    return WriteFileAtomically(strPath, strText, 0600, EExisting::Replace, strError);
}

bool ReadBusinessKey(const std::string &strPath, std::string &strKey, std::string &strError) {
    CSimpleIniA store;
    if (!LoadStore(strPath, store, strError)) {
        return false;
    }
    const char *pszValue = store.GetValue(kKeySection, kKeyName);
    if (pszValue != nullptr && FromHexText(pszValue, strKey) && strKey.size() == kKeySize) {
        return true;
    }
    strError = EscapeName(strPath) + " holds no 28 hexadecimal digits as " + kKeyName + " in section " + kKeySection;
    return false;
}
