#include "tools/business_key.h"

#include "support/hex.h"
#include "tools/atomic_file.h"
#include "tools/text.h"

#define SI_NO_CONVERSION
#define SI_IMPLEMENTATION
#include <SimpleIni.h>

#include <array>
#include <cerrno>
#include <sys/random.h>
#include <sys/stat.h>

namespace {

constexpr const char *kSection = "avscan";
constexpr const char *kName = "mor_secret";
constexpr uint64_t kLargestFile = 1u << 20;

// The file's text; a missing file is an empty one, any other trouble is a failure.
bool LoadStore(const std::string &strPath, CSimpleIniA &store, std::string &strError) {
    struct stat status {};
    if (lstat(strPath.c_str(), &status) == 0 && (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        strError = EscapeName(strPath) + " is open to other users; it has to have mode 0600";
        return false;
    }
    std::string strText;
    bool bMissing = false;
    if (!ReadWholeFile(strPath, kLargestFile, strText, bMissing, strError) && !bMissing)
        return false;
    if (store.LoadData(strText.data(), strText.size()) >= 0)
        return true;
    strError = EscapeName(strPath) + " is not an ini file";
    return false;
}

bool RandomKey(std::string &strKey, std::string &strError) {
    strKey.resize(kBusinessKeySize);
    ssize_t got = 0;
    do {
        got = getrandom(strKey.data(), strKey.size(), 0);
    } while (got < 0 && errno == EINTR);
    if (got == static_cast<ssize_t>(strKey.size()))
        return true;
    strError = "the system gives no random numbers";
    return false;
}

} // namespace

bool EnsureBusinessKey(const std::string &strPath, std::string &strError) {
    CSimpleIniA store;
    if (!LoadStore(strPath, store, strError))
        return false;
    if (store.GetValue(kSection, kName) != nullptr)
        return true;
    std::string strKey;
    if (!RandomKey(strKey, strError))
        return false;
    std::string strText;
    if (store.SetValue(kSection, kName, HexText(strKey).c_str()) < 0 || store.Save(strText) < 0) {
        strError = "cannot add a key to " + EscapeName(strPath);
        return false;
    }
    return WriteFileAtomically(strPath, strText, 0600, EExisting::Replace, strError);
}

bool ReadBusinessKey(const std::string &strPath, std::string &strKey, std::string &strError) {
    CSimpleIniA store;
    if (!LoadStore(strPath, store, strError))
        return false;
    const char *pszValue = store.GetValue(kSection, kName);
    if (pszValue != nullptr && FromHexText(pszValue, strKey) && strKey.size() == kBusinessKeySize)
        return true;
    strError = EscapeName(strPath) + " holds no 28 hexadecimal digits as " + kName + " in section " + kSection;
    return false;
}
