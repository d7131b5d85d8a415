// checked_file.h - files that decide what a privileged process does: opened, made and looked at with distrust, because
// others may have a hand in their folder.
#ifndef TARN_SUPPORT_CHECKED_FILE_H
#define TARN_SUPPORT_CHECKED_FILE_H

#include "support/descriptor.h"

#include <string>
#include <sys/stat.h>

enum class EFileFault {
    None,
    Absent,
    Link,         // a symbolic link
    ForeignLink,  // one that somebody else made, or can lead elsewhere
    NotRegular,   // a folder, a pipe, a device, a socket
    NotAFolder,   // the same, where a folder is asked for
    SeveralNames, // hard links: the file may have been put here under a second name
    ForeignOwner, // neither root nor the effective user
    OpenToOthers, // more permissions than the caller allows
    Failure       // the system call failed
};

struct _FileCheck {
    EFileFault eFault = EFileFault::None;
    int iError = 0; // what a caller that speaks in errno values says; 0 when nothing is wrong

    [[nodiscard]] bool IsGood() const noexcept { return eFault == EFileFault::None; }
    // There is something, and it is not what it has to be.
    [[nodiscard]] bool IsRefused() const noexcept {
        return !IsGood() && eFault != EFileFault::Absent && eFault != EFileFault::Failure;
    }
    // What is wrong, to follow the path and a colon. Never null.
    [[nodiscard]] const char *Text() const noexcept;
};

constexpr mode_t kSharedMode = S_IRWXG | S_IRWXO;   // forbidden for secrets
constexpr mode_t kWritableMode = S_IWGRP | S_IWOTH; // forbidden where others may read
constexpr mode_t kPublicMode = S_IWOTH;             // forbidden where an administrator may share with a group

// A regular file with one name, of root or of the effective user, none of whose permissions is among the forbidden
// ones. By its name alone: it opens nothing, so it is fit for a file whose POSIX locks this process holds.
[[nodiscard]] _FileCheck CheckFile(const char *pszPath, mode_t forbidden, struct stat *pStatus = nullptr) noexcept;

// The same for a descriptor.
[[nodiscard]] _FileCheck CheckOpenFile(int fd, mode_t forbidden, struct stat *pStatus = nullptr) noexcept;

// Opens such a file; file stays closed when something is wrong. iFlags: O_RDONLY, O_WRONLY or O_RDWR, with O_APPEND or
// O_CREAT. With O_CREAT one that is absent is made with mode 0600, and never through a link. Waits for nothing,
// truncates nothing. The name counts from the folder, which may be AT_FDCWD.
[[nodiscard]] _FileCheck OpenChecked(int fdFolder, const char *pszName, int iFlags, mode_t forbidden,
                                     CDescriptor &file) noexcept;

// A folder, links followed, of root or of the effective user, in which others can replace nothing: they may not write,
// or it has the sticky bit. bGroupToo counts the group among them.
[[nodiscard]] _FileCheck CheckFolder(const char *pszPath, bool bGroupToo) noexcept;

// The name that symbolic links at the end of a path lead to; the path itself when it is none. Links and the folders
// that they lead through have to be of root or of the effective user, and others may replace nothing in those folders.
// A link to nothing is a failure (ENOENT). Throws only std::bad_alloc.
[[nodiscard]] _FileCheck FollowLinks(const char *pszPath, std::string &strTarget);

#endif
