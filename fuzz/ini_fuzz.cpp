// Any bytes as a configuration: what is set comes back after a save, the rest stays as it was, and a second save gives
// the same bytes.
#include "platform/nubbase.h"
#include "tests/support/install.h"

#include <cstdlib>
#include <fuzzer/FuzzedDataProvider.h>
#include <memory>

using Ini = std::unique_ptr<void, decltype(&ini_file_free)>;

static std::string Get(const Ini &ini, const char *pszSection, const char *pszKey) {
    const char *pszValue = ini_file_get(ini.get(), pszSection, pszKey);
    return pszValue != nullptr ? pszValue : "(none)";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nSize) {
    FuzzedDataProvider input(pData, nSize);
    static const CTempInstall s_install;
    const std::string strKey = input.ConsumeRandomLengthString(16);
    const std::string strValue = input.ConsumeRandomLengthString(16);
    const std::string strPath = s_install.WriteFile("ini", input.ConsumeRemainingBytesAsString());
    const Ini ini(ini_file_load(strPath.c_str()), ini_file_free);
    const std::string strOther = ini != nullptr ? Get(ini, "log", "level") : "";
    if (ini == nullptr || ini_file_set(ini.get(), "cacheeng", strKey.c_str(), strValue.c_str()) != 0 ||
        ini_file_save(ini.get(), strPath.c_str(), 0) != 0) {
        return 0; // refused
    }
    const std::string strSaved = ReadWholeFile(strPath);
    const Ini again(ini_file_load(strPath.c_str()), ini_file_free);
    if (again == nullptr || Get(again, "cacheeng", strKey.c_str()) != strValue.c_str() ||
        Get(again, "log", "level") != strOther || ini_file_save(again.get(), strPath.c_str(), 0) != 0 ||
        ReadWholeFile(strPath) != strSaved) {
        std::abort();
    }
    return 0;
}
