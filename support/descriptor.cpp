#include "support/descriptor.h"

CDescriptor OpenForReading(int fdFolder, const char *pszName, ELastLink eLastLink, int iExtraFlags) noexcept {
    const int iLink = eLastLink == ELastLink::Refuse ? O_NOFOLLOW : 0;
    const int iFlags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | iLink | iExtraFlags;
    int fd = openat(fdFolder, pszName, iFlags | O_NOATIME);
    if (fd < 0 && errno == EPERM) { // only a file's owner may leave its access time alone
        fd = openat(fdFolder, pszName, iFlags);
    }
    return CDescriptor(fd);
}
