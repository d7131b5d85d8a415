#include "util/file_systems.h"

#include "support/descriptor.h"

#include <cstring>
#include <sys/stat.h>
#include <sys/vfs.h>

namespace {

// O_PATH: nothing is opened but the name, so that neither a device, a pipe nor a lease is touched.
bool AskFileSystem(dev_t device, const char *pszPath, uint64_t &ullIdentity) {
    const CDescriptor file(open(pszPath, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    struct statfs fileSystem = {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0 || status.st_dev != device ||
        fstatfs(file.Get(), &fileSystem) != 0) {
        return false;
    }
    static_assert(sizeof fileSystem.f_fsid == sizeof ullIdentity);
    std::memcpy(&ullIdentity, &fileSystem.f_fsid, sizeof ullIdentity);
    return true;
}

} // namespace

bool CFileSystems::IdentityOf(dev_t device, const char *pszPath, uint64_t &ullIdentity) {
    // 1. The mount table is looked at, and what is known is forgotten when it changed, under one hold of the mutex:
    //    the kernel tells a change once, and nobody may use old knowledge between the telling and the forgetting.
    // 2. Only then is the device looked up. A change after that belongs to the caller's own race with umount, which a
    //    status taken before has as well.
    const std::lock_guard<std::mutex> guard(m_mutex);
    if (m_mountTable.HasChanged()) {
        m_mapKnown.clear();
    }
    if (const auto it = m_mapKnown.find(device); it != m_mapKnown.end()) {
        ullIdentity = it->second;
        return true;
    }
    if (!AskFileSystem(device, pszPath, ullIdentity)) {
        return false;
    }
    m_mapKnown.emplace(device, ullIdentity);
    return true;
}
