#include "support/checked_file.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <memory>

namespace {

constexpr int kMaxLinks = 8;

// With its last "/"; empty for a name alone.
std::string FolderOf(const std::string &strPath) {
    return strPath.substr(0, strPath.rfind('/') + 1); // npos + 1 is 0
}

// 0 when nobody but root and the effective user can replace anything on the way to the folder, else an errno value.
int CheckWay(const std::string &strFolder) {
    const std::unique_ptr<char, decltype(&std::free)> pResolved(
        realpath(strFolder.empty() ? "." : strFolder.c_str(), nullptr), &std::free);
    if (pResolved == nullptr) {
        return errno;
    }
    std::string strWay = pResolved.get();
    for (;;) {
        const _FileCheck check = CheckFolder(strWay.c_str(), false);
        if (!check.IsGood()) {
            return check.iError;
        }
        if (strWay == "/") {
            return 0;
        }
        strWay.resize(std::max<size_t>(strWay.rfind('/'), 1));
    }
}

// One step: strPath becomes what the link says.
int Follow(const struct stat &link, std::string &strPath) {
    if (link.st_uid != 0 && link.st_uid != geteuid()) {
        return EPERM;
    }
    char szText[PATH_MAX];
    const ssize_t nLength = readlink(strPath.c_str(), szText, sizeof szText);
    if (nLength <= 0 || nLength == static_cast<ssize_t>(sizeof szText)) {
        return nLength < 0 ? errno : ENAMETOOLONG;
    }
    strPath = (szText[0] == '/' ? std::string() : FolderOf(strPath)).append(szText, static_cast<size_t>(nLength));
    return CheckWay(FolderOf(strPath));
}

} // namespace

_FileCheck FollowLinks(const char *pszPath, std::string &strTarget) {
    strTarget = pszPath;
    for (int nLinks = 0; nLinks <= kMaxLinks; ++nLinks) {
        struct stat status = {};
        if (lstat(strTarget.c_str(), &status) != 0) {
            return {errno == ENOENT && nLinks == 0 ? EFileFault::Absent : EFileFault::Failure, errno};
        }
        if (!S_ISLNK(status.st_mode)) {
            return {};
        }
        const int iError = Follow(status, strTarget);
        if (iError != 0) {
            const bool bForeign = iError == EPERM || iError == EACCES;
            return {bForeign ? EFileFault::ForeignLink : EFileFault::Failure, bForeign ? EPERM : iError};
        }
    }
    return {EFileFault::Failure, ELOOP};
}
