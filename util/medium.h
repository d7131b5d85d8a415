// medium.h - what a file system lies on, as far as that decides whether its files' statuses can be believed.
#ifndef TARN_UTIL_MEDIUM_H
#define TARN_UTIL_MEDIUM_H

#include "util/file_system_kind.h"

#include <string>
#include <sys/stat.h>

// In the order of growing doubt.
enum class EMedium {
    Fixed,
    Removable, // it can be changed in another machine, or below the file system in this one
    Unknown    // the kernel does not say
};

// fd: a file on the file system; device: its st_dev; strSys: where sysfs is mounted. Throws std::bad_alloc.
[[nodiscard]] EMedium MediumOf(int fd, dev_t device, EFileSystem eKind, const std::string &strSys = "/sys");

// Whether nobody but root and the caller's own user may open the file for writing. An access list shows in the bits of
// the group.
[[nodiscard]] bool IsWrittenByTrustedAlone(const struct stat &status);

#endif
