#include "support/checked_file.h"

#include <cstring>

namespace {

constexpr int kMaxTries = 16; // against somebody who makes and removes the name all the time
constexpr mode_t kNewMode = S_IRUSR | S_IWUSR;

_FileCheck Fault(EFileFault eFault, int iError) noexcept {
    return {eFault, iError};
}

_FileCheck Failure() noexcept {
    return Fault(errno == ENOENT ? EFileFault::Absent : EFileFault::Failure, errno);
}

bool IsTrustedOwner(const struct stat &status) noexcept {
    return status.st_uid == 0 || status.st_uid == geteuid();
}

_FileCheck Judge(const struct stat &status, mode_t forbidden) noexcept {
    if (S_ISLNK(status.st_mode)) {
        return Fault(EFileFault::Link, ELOOP);
    }
    if (!S_ISREG(status.st_mode)) {
        return Fault(EFileFault::NotRegular, S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
    }
    if (!IsTrustedOwner(status)) {
        return Fault(EFileFault::ForeignOwner, EPERM);
    }
    if (status.st_nlink > 1) { // 0: removed since it was opened
        return Fault(EFileFault::SeveralNames, EMLINK);
    }
    return (status.st_mode & forbidden) != 0 ? Fault(EFileFault::OpenToOthers, EACCES) : _FileCheck{};
}

// Opens the name, or makes it. EEXIST: it has come since; ENOENT: it has gone since.
int OpenOnce(int fdFolder, const char *pszName, int iFlags) noexcept {
    const int iCommon = (iFlags & ~O_CREAT) | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const int fd = openat(fdFolder, pszName, iCommon);
    return fd < 0 && errno == ENOENT && (iFlags & O_CREAT) != 0
               ? openat(fdFolder, pszName, iCommon | O_CREAT | O_EXCL, kNewMode)
               : fd;
}

} // namespace

const char *_FileCheck::Text() const noexcept {
    switch (eFault) {
    case EFileFault::None:
        return "nothing is wrong";
    case EFileFault::Link:
        return "it is a symbolic link";
    case EFileFault::ForeignLink:
        return "it is a symbolic link that others can change";
    case EFileFault::NotRegular:
        return "it is not a regular file";
    case EFileFault::NotAFolder:
        return "it is not a folder";
    case EFileFault::SeveralNames:
        return "it has several names (hard links)";
    case EFileFault::ForeignOwner:
        return "it belongs to another user";
    case EFileFault::OpenToOthers:
        return "its permissions let others in";
    case EFileFault::Absent:
    case EFileFault::Failure:
        break;
    }
    const char *pszText = strerrordesc_np(iError); // never in the host's language, never allocated
    return pszText == nullptr ? "unknown error" : pszText;
}

_FileCheck CheckFile(const char *pszPath, mode_t forbidden, struct stat *pStatus) noexcept {
    struct stat status = {};
    if (lstat(pszPath, &status) != 0) {
        return Failure();
    }
    if (pStatus != nullptr) {
        *pStatus = status;
    }
    return Judge(status, forbidden);
}

_FileCheck CheckOpenFile(int fd, mode_t forbidden, struct stat *pStatus) noexcept {
    struct stat status = {};
    if (fstat(fd, &status) != 0) {
        return Failure();
    }
    if (pStatus != nullptr) {
        *pStatus = status;
    }
    return Judge(status, forbidden);
}

_FileCheck OpenChecked(int fdFolder, const char *pszName, int iFlags, mode_t forbidden, CDescriptor &file) noexcept {
    file = CDescriptor();
    for (int iTry = 0; iTry < kMaxTries; ++iTry) {
        CDescriptor opened(OpenOnce(fdFolder, pszName, iFlags));
        if (opened.IsOpen()) {
            const _FileCheck check = CheckOpenFile(opened.Get(), forbidden);
            if (check.IsGood()) {
                file = std::move(opened);
            }
            return check;
        }
        if ((iFlags & O_CREAT) == 0 || (errno != EEXIST && errno != ENOENT)) {
            break;
        }
    }
    const _FileCheck failure = Failure();
    // What cannot be opened at all, a link, a folder for writing, a pipe without a reader, a socket, is still named.
    struct stat status = {};
    if (failure.eFault == EFileFault::Failure && fstatat(fdFolder, pszName, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        !S_ISREG(status.st_mode)) {
        return Judge(status, forbidden);
    }
    return failure;
}

_FileCheck CheckFolder(const char *pszPath, bool bGroupToo) noexcept {
    struct stat status = {};
    if (stat(pszPath, &status) != 0) {
        return Failure();
    }
    if (!S_ISDIR(status.st_mode)) {
        return Fault(EFileFault::NotAFolder, ENOTDIR);
    }
    if (!IsTrustedOwner(status)) {
        return Fault(EFileFault::ForeignOwner, EPERM);
    }
    const mode_t writers = S_IWOTH | (bGroupToo ? S_IWGRP : 0U);
    const bool bOpen = (status.st_mode & writers) != 0 && (status.st_mode & S_ISVTX) == 0;
    return bOpen ? Fault(EFileFault::OpenToOthers, EACCES) : _FileCheck{};
}
