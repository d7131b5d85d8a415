#include "tools/cache/install_root.h"

#include "default_config.h" // made from config/tarncfg.ini
#include "tools/cache/business_key.h"
#include "tools/cache/small_file.h"
#include "tools/text/path_argument.h"
#include "tools/text/text.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct _FolderRule {
    const char *pszName;
    mode_t mode;
    mode_t forbidden; // permission bits that would let somebody else plant verdicts
};

constexpr std::array<_FolderRule, 6> kFolders = {{
    {"", 0755, S_IWOTH},
    {kLibraryFolder, 0755, 0},
    {kConfigFolder, 0755, S_IWOTH},
    {kEngineFolder, 0755, S_IWGRP | S_IWOTH},
    {kCacheFolder, 0700, S_IWGRP | S_IWOTH},
    {kUpdateFolder, 0700, S_IWGRP | S_IWOTH},
}};

std::string Environment(const char *pszName) {
    const char *pszValue = getenv(pszName);
    return pszValue == nullptr ? std::string() : std::string(pszValue);
}

std::string UserFolder() {
    const std::string strData = Environment("XDG_DATA_HOME");
    if (!strData.empty() && strData.front() == '/') {
        return strData + "/tarncache";
    }
    std::string strHome = Environment("HOME");
    if (strHome.empty()) {
        const struct passwd *pUser = getpwuid(geteuid());
        strHome = pUser == nullptr ? "/" : pUser->pw_dir;
    }
    return strHome + "/.local/share/tarncache";
}

bool IsUsablePrefix(const std::string &strPrefix) {
    const auto allows = [&](const char *pszName, int iAccess) {
        return access((strPrefix + "/" + pszName).c_str(), iAccess) == 0;
    };
    return !strPrefix.empty() && allows(FromRoot(kConfigPath), R_OK | W_OK) && allows(kConfigFolder, W_OK) &&
           allows(kEngineFolder, W_OK);
}

bool MakeFolder(const std::string &strPath, mode_t mode, std::string &strError) {
    if (mkdir(strPath.c_str(), mode) == 0 || errno == EEXIST) {
        return true;
    }
    const size_t nSlash = strPath.rfind('/');
    if (errno == ENOENT && nSlash != std::string::npos && nSlash != 0 &&
        MakeFolder(strPath.substr(0, nSlash), 0755, strError) && mkdir(strPath.c_str(), mode) == 0) {
        return true;
    }
    strError = "cannot make the folder " + ErrnoText(strPath, errno);
    return false;
}

// A folder that belongs to somebody else, or that others may write to, could be filled with false verdicts.
bool IsTrusted(const std::string &strPath, mode_t forbidden, std::string &strError) {
    struct stat status = {};
    if (stat(strPath.c_str(), &status) != 0) {
        strError = "cannot use the folder " + ErrnoText(strPath, errno);
        return false;
    }
    if (!S_ISDIR(status.st_mode)) {
        strError = EscapeName(strPath) + " is not a folder";
    } else if (status.st_uid != geteuid() && status.st_uid != 0) {
        strError = "the folder " + EscapeName(strPath) + " belongs to another user";
    } else if ((status.st_mode & forbidden) != 0) {
        strError = "the folder " + EscapeName(strPath) + " can be written to by other users";
    } else {
        return true;
    }
    return false;
}

} // namespace

std::string ProgramPrefix() {
    std::array<char, PATH_MAX> buffer = {};
    const ssize_t nLength = readlink("/proc/self/exe", buffer.data(), buffer.size() - 1);
    if (nLength <= 0) {
        return {};
    }
    const std::string strProgram(buffer.data(), static_cast<size_t>(nLength));
    const size_t nFolderEnd = strProgram.rfind('/');
    const size_t nPrefixEnd = nFolderEnd == 0 ? std::string::npos : strProgram.rfind('/', nFolderEnd - 1);
    return nPrefixEnd == std::string::npos ? std::string() : strProgram.substr(0, nPrefixEnd);
}

bool Exists(const std::string &strPath) {
    struct stat status = {};
    return lstat(strPath.c_str(), &status) == 0;
}

CInstallRoot::CInstallRoot(const std::string &strOption) {
    const std::string strInherited = Environment("TARN_INSTALL_DIR");
    const std::string strPrefix = ProgramPrefix();
    if (!strOption.empty()) {
        m_strPath = AbsolutePath(strOption);
    } else if (!strInherited.empty()) {
        m_strPath = AbsolutePath(strInherited + "/..");
        m_bFromEnvironment = true;
    } else if (IsUsablePrefix(strPrefix)) {
        m_strPath = strPrefix;
    } else {
        m_strPath = geteuid() == 0 ? "/var/lib/tarncache" : AbsolutePath(UserFolder());
    }
    if (m_strPath.empty()) {
        // There is no working folder to begin from. Every use of this path fails, and says so.
        m_strPath = strOption.empty() ? "." : strOption;
    }
}

void CInstallRoot::ExportToLibrary() const {
    if (!m_bFromEnvironment) {
        (void)setenv("TARN_INSTALL_DIR", Below(kLibraryFolder).c_str(), 1);
    }
}

bool CInstallRoot::Prepare(std::string &strError) const {
    for (const _FolderRule &rule : kFolders) {
        const std::string strFolder = *rule.pszName == '\0' ? m_strPath : Below(rule.pszName);
        if (!MakeFolder(strFolder, rule.mode, strError) || !IsTrusted(strFolder, rule.forbidden, strError)) {
            return false;
        }
    }
    if (!Exists(ConfigFile()) && !WriteSmallFile(ConfigFile(), kDefaultConfig, 0644, EExisting::Keep, strError)) {
        return false;
    }
    // Whoever reads a key file that is there tells what is wrong with it.
    return Exists(KeyFile()) || EnsureBusinessKey(KeyFile(), strError);
}

bool CInstallRoot::IsSetUp() const {
    return Exists(ConfigFile()) && Exists(Below(kEngineFolder));
}

bool CInstallRoot::IsListPending() const {
    return (Exists(HashMarker()) && Exists(WithdrawnList())) || Exists(Below(FromRoot(kListTakenPath)));
}

bool CInstallRoot::IsEnginePending() const {
    return Exists(EngineMarker()) || Exists(Below(FromRoot(kEngineTakenPath)));
}
