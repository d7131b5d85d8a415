#include "formats/business_values.h"

#include <sys/stat.h>

EKeyFile OpenKeyFile(const char *pszPath, CDescriptor &file, mode_t &mode) noexcept {
    file = OpenForReading(AT_FDCWD, pszPath, ELastLink::Refuse);
    struct stat status = {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) {
        return EKeyFile::Unreadable;
    }
    mode = status.st_mode & (S_ISUID | S_ISGID | S_ISVTX | S_IRWXU | S_IRWXG | S_IRWXO);
    return (mode & (S_IRWXG | S_IRWXO)) == 0 ? EKeyFile::Private : EKeyFile::Shared;
}
