#include "support/whole_file.h"

#include "support/call_guard.h"
#include "support/temporary_file.h"

#include <cerrno>
#include <sys/stat.h>

namespace {

std::string FolderOf(const std::string &strPath) {
    const size_t nSlash = strPath.rfind('/');
    return nSlash == std::string::npos ? "." : nSlash == 0 ? "/" : strPath.substr(0, nSlash);
}

// Finds the file that a replacement is to replace, following a link: renaming onto the link would replace the link.
// What a link leads to has to be ours. A file that is not there has mode 0.
int FindTarget(const char *pszPath, std::string &strTarget, struct stat &status) {
    const _FileCheck links = FollowLinks(pszPath, strTarget);
    if (!links.IsGood()) {
        return links.eFault == EFileFault::Absent ? 0 : links.iError;
    }
    const _FileCheck file = CheckFile(strTarget.c_str(), 0, &status);
    return file.IsGood() || (S_ISREG(status.st_mode) && strTarget == pszPath) ? 0 : file.iError;
}

} // namespace

int LoadWholeFile(const CDescriptor &file, size_t nLimit, std::string &strText) {
    strText.clear();
    struct stat status = {};
    if (fstat(file.Get(), &status) != 0) {
        return errno;
    }
    if (!S_ISREG(status.st_mode)) {
        return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    }
    if (static_cast<size_t>(status.st_size) > nLimit) {
        return EFBIG;
    }
    strText.reserve(static_cast<size_t>(status.st_size));
    char szBlock[16384];
    for (;;) {
        const ssize_t nRead = read(file.Get(), szBlock, sizeof szBlock);
        if (nRead == 0) {
            return 0;
        }
        if (nRead < 0 && errno == EINTR) {
            continue;
        }
        if (nRead < 0 || strText.size() + static_cast<size_t>(nRead) > nLimit) { // it may have grown meanwhile
            const int iError = nRead < 0 ? errno : EFBIG;
            strText.clear();
            return iError;
        }
        strText.append(szBlock, static_cast<size_t>(nRead));
    }
}

int LoadWholeFile(const char *pszPath, ELastLink eLastLink, size_t nLimit, std::string &strText) {
    strText.clear();
    const CDescriptor file = OpenForReading(AT_FDCWD, pszPath, eLastLink);
    return file.IsOpen() ? LoadWholeFile(file, nLimit, strText) : errno;
}

_FileCheck LoadCheckedFile(const char *pszPath, mode_t forbidden, size_t nLimit, std::string &strText) {
    strText.clear();
    std::string strTarget;
    _FileCheck check = FollowLinks(pszPath, strTarget);
    CDescriptor file;
    if (check.IsGood()) {
        check = OpenChecked(AT_FDCWD, strTarget.c_str(), O_RDONLY, forbidden, file);
    }
    if (!check.IsGood()) {
        return check;
    }
    const int iError = LoadWholeFile(file, nLimit, strText);
    return iError == 0 ? _FileCheck{} : _FileCheck{EFileFault::Failure, iError};
}

int SaveWholeFile(const char *pszPath, std::string_view text, mode_t newMode, EExisting eExisting) {
    std::string strTarget = pszPath;
    struct stat status = {};
    const int iError = eExisting == EExisting::Keep ? 0 : FindTarget(pszPath, strTarget, status);
    if (iError != 0) {
        return iError;
    }
    const CDescriptor folder(open(FolderOf(strTarget).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder.IsOpen()) {
        return errno;
    }
    SweepTemporaryFiles(strTarget);
    {
        const CWriteSignalGuard noWriteSignals;
        CTemporaryFile file(strTarget);
        const bool bReady = file.IsOpen() &&
                            (status.st_mode == 0 ? file.SetMode(newMode) : file.SetOwnerAndMode(status)) &&
                            file.Write(text) && file.Flush();
        if (!bReady || !(eExisting == EExisting::Keep ? file.PlaceUnlessThere() : file.Replace())) {
            return errno;
        }
    }
    // The folder too, else a crash could bring the old name back. EINVAL: a file system that flushes no folders.
    return fsync(folder.Get()) == 0 || errno == EINVAL ? 0 : errno;
}
