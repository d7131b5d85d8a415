#include "tools/cache/business_key.h"

#include "formats/business_values.h"
#include "support/hex.h"
#include "tools/cache/small_file.h"
#include "tools/text/text.h"

#include <cerrno>
#include <sys/random.h>

namespace {

// A missing file is an empty one; any other trouble is a failure.
bool LoadText(const std::string &strPath, std::string &strText, std::string &strError) {
    const _FileCheck check = LoadKeyFile(strPath.c_str(), strText);
    if (check.IsGood() || check.eFault == EFileFault::Absent) {
        return true;
    }
    strError = check.eFault == EFileFault::OpenToOthers
                   ? EscapeName(strPath) + " is open to other users; it has to have mode 0600"
               : check.IsRefused() ? EscapeName(strPath) + ": " + check.Text()
                                   : ReadFailureText(strPath, check.iError);
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
    std::string strText;
    std::string strKey;
    if (!LoadText(strPath, strText, strError)) {
        return false;
    }
    if (FindBusinessValue(strText, kKeySection, kKeyName).has_value()) {
        return true;
    }
    if (!RandomKey(strKey, strError)) {
        return false;
    }
    // Added behind what is there, because the file is not this program's alone: every other byte of it stays.
    strText += strText.empty() || strText.back() == '\n' ? "[" : "\n[";
    strText += std::string(kKeySection) + "]\n" + kKeyName + "=" + HexText(strKey) + "\n";
    return WriteSmallFile(strPath, strText, 0600, EExisting::Replace, strError);
}

bool ReadBusinessKey(const std::string &strPath, std::string &strKey, std::string &strError) {
    std::string strText;
    if (!LoadText(strPath, strText, strError)) {
        return false;
    }
    const std::string_view value = FindBusinessValue(strText, kKeySection, kKeyName).value_or("");
    if (IsKeyText(value) && FromHexText(value, strKey)) {
        return true;
    }
    strError = EscapeName(strPath) + " holds no " + std::to_string(2 * kKeySize) + " hexadecimal digits as " +
               kKeyName + " in section " + kKeySection;
    return false;
}
