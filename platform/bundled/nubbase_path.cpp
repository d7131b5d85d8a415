#include "platform/nubbase.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <string>
#include <string_view>
#include <unistd.h>

namespace {

// The folder that holds this library, empty when it is not known. Found while the library is loaded: the loader may
// know it by a relative name only, and the host may change its working directory later.
char g_szLibraryDir[PATH_MAX];

// The working folder at that moment, ending in "/"; relative names count from it. Empty when it cannot be told.
char g_szStartDir[PATH_MAX];

__attribute__((constructor)) void FindLibraryDir() noexcept {
    if (getcwd(g_szStartDir, sizeof g_szStartDir - 1) != nullptr) {
        g_szStartDir[std::strlen(g_szStartDir)] = '/';
    }
    Dl_info info;
    if (dladdr(g_szLibraryDir, &info) == 0 || info.dli_fname == nullptr) {
        return;
    }
    if (info.dli_fname[0] != '/' && g_szStartDir[0] == '\0') {
        return;
    }
    const char *pszPrefix = info.dli_fname[0] == '/' ? "" : g_szStartDir;
    const size_t nPrefix = std::strlen(pszPrefix);
    const char *pszLastSlash = std::strrchr(info.dli_fname, '/');
    const size_t nFolder = pszLastSlash == nullptr ? 0 : static_cast<size_t>(pszLastSlash - info.dli_fname);
    if (nPrefix + nFolder + 1 >= sizeof g_szLibraryDir) {
        return;
    }
    std::memcpy(g_szLibraryDir, pszPrefix, nPrefix);
    std::memcpy(g_szLibraryDir + nPrefix, info.dli_fname, nFolder);
    if (nPrefix + nFolder == 0) {
        g_szLibraryDir[0] = '/';
    }
}

std::string InstallDir() {
    // The secure form: a set-uid program must not take its configuration from its caller's environment.
    const char *pszConfigured = secure_getenv("TARN_INSTALL_DIR");
    if (pszConfigured == nullptr || pszConfigured[0] == '\0') {
        return g_szLibraryDir;
    }
    if (pszConfigured[0] == '/') {
        return pszConfigured;
    }
    return g_szStartDir[0] == '\0' ? std::string() : std::string(g_szStartDir) + pszConfigured;
}

// Empty when the installation directory is not known.
std::string Expand(std::string_view text) {
    if (text.empty() || text.front() != '@') {
        return std::string(text);
    }
    const std::string strInstallDir = InstallDir();
    if (strInstallDir.empty()) {
        return {};
    }
    std::string strPath = strInstallDir + '/' + std::string(text.substr(1));
    // One "/" at the start: POSIX gives two a meaning of their own.
    strPath.erase(0, std::min(strPath.find_first_not_of('/'), strPath.size()) - 1);
    strPath = std::filesystem::path(strPath).lexically_normal().native();
    // lexically_normal ends "a/b/.." in "/"; a caller who gave no "/" at the end gets none.
    const bool bWantsSlash = text.back() == '/';
    if (!bWantsSlash && strPath.size() > 1 && strPath.back() == '/') {
        strPath.pop_back();
    }
    return strPath;
}

} // namespace

int dirutils_path_transform(const char *in, char *out, int outSize) {
    if (out == nullptr || outSize <= 0) {
        return 0;
    }
    try {
        const std::string strPath = in == nullptr ? std::string() : Expand(in);
        const bool bLost = in == nullptr || (strPath.empty() && in[0] != '\0');
        out[0] = '\0';
        if (bLost || strPath.size() >= static_cast<size_t>(outSize)) {
            return 0;
        }
        std::memcpy(out, strPath.c_str(), strPath.size() + 1);
        return 1;
    } catch (...) {
        out[0] = '\0';
        return 0;
    }
}
