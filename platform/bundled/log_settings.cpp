#include "platform/bundled/log_settings.h"

#include "formats/installation.h"
#include "platform/nubbase.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <strings.h>
#include <system_error>
#include <utility>

namespace {

constexpr char kConfigSection[] = "log";

int ParseLevel(const std::string &strLevel) {
    for (int i = kLevelOff; i <= kLevelDebug; ++i) {
        if (strcasecmp(strLevel.c_str(), kLevelNames[i]) == 0) {
            return i;
        }
    }
    return kLevelError;
}

std::string AbsolutePath(const std::string &strPath) {
    char szExpanded[PATH_MAX];
    if (dirutils_path_transform(strPath.c_str(), szExpanded, sizeof szExpanded) == 0 || szExpanded[0] == '\0') {
        return {};
    }
    // Absolute, because the file is opened again at each rotation and the host may change its folder meanwhile.
    std::error_code error;
    return std::filesystem::absolute(szExpanded, error).native();
}

} // namespace

std::optional<_LogSettings> ReadLogSettings() {
    const auto fromEnvironment = [](const char *pszName) -> std::optional<std::string> {
        const char *pszValue = secure_getenv(pszName);
        return pszValue == nullptr || pszValue[0] == '\0' ? std::nullopt : std::optional<std::string>(pszValue);
    };
    std::optional<std::string> level = fromEnvironment("TARN_LOG_LEVEL");
    std::optional<std::string> file = fromEnvironment("TARN_LOG_FILE");
    char szConfig[PATH_MAX];
    if ((!level || !file) && dirutils_path_transform(kConfigPath, szConfig, sizeof szConfig) != 0) {
        const std::unique_ptr<void, decltype(&ini_file_free)> ini(ini_file_load(szConfig), &ini_file_free);
        if (ini == nullptr && (errno == ENOMEM || errno == EMFILE || errno == ENFILE)) {
            return std::nullopt;
        }
        const auto fromFile = [&ini](const char *pszKey) {
            const char *pszValue = ini == nullptr ? nullptr : ini_file_get(ini.get(), kConfigSection, pszKey);
            return std::string(pszValue == nullptr ? "" : pszValue);
        };
        level = level ? level : fromFile("level");
        file = file ? file : fromFile("file");
    }
    return _LogSettings{ParseLevel(level.value_or("")), AbsolutePath(file.value_or(""))};
}
