#include "util/file_systems.h"

#include "support/descriptor.h"
#include "util/medium.h"

#include <cstring>
#include <sodium.h>
#include <sys/vfs.h>

namespace {

constexpr uint32_t kBtrfs = 0x9123683E;

// What is hashed. The number alone is easily had twice: user space and servers give 0, and an image or a medium has
// the one that its maker chose.
struct _Description {
    uint64_t ullNumber; // f_fsid
    uint32_t ulType;    // f_type
    uint32_t ulMedium;
};
static_assert(sizeof(_Description) == 16, "hashed as it lies in memory; what is made of it is stored");

uint64_t HashOf(const _Description &description) {
    unsigned char abHash[crypto_generichash_BYTES_MIN] = {};
    uint64_t ullIdentity = 0;
    // Cannot fail with these sizes.
    (void)crypto_generichash(abHash, sizeof abHash, reinterpret_cast<const unsigned char *>(&description),
                             sizeof description, nullptr, 0);
    std::memcpy(&ullIdentity, abHash, sizeof ullIdentity);
    return ullIdentity;
}

} // namespace

bool CFileSystems::Ask(dev_t device, const char *pszPath, _Known &known) {
    // O_PATH: nothing is opened but the name, so that neither a device, a pipe nor a lease is touched.
    const CDescriptor file(open(pszPath, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    struct statfs fileSystem = {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0 || status.st_dev != device ||
        fstatfs(file.Get(), &fileSystem) != 0) {
        return false;
    }
    _Description description = {0, static_cast<uint32_t>(fileSystem.f_type), 0};
    static_assert(sizeof fileSystem.f_fsid == sizeof description.ullNumber);
    std::memcpy(&description.ullNumber, &fileSystem.f_fsid, sizeof description.ullNumber);
    if (known.bAsked && known.ullNumber == description.ullNumber) {
        return true;
    }
    description.ulMedium = static_cast<uint32_t>(MediumOf(file.Get(), device, FileSystemOfType(description.ulType)));
    known = {true, description.ulType == kBtrfs, description.ullNumber, HashOf(description)};
    return true;
}

bool CFileSystems::IdentityOf(dev_t device, const char *pszPath, uint64_t &ullIdentity) {
    // 1. The mount table is looked at, and what is known is forgotten when it changed, under one hold of the mutex:
    //    the kernel tells a change once, and nobody may use old knowledge between the telling and the forgetting.
    // 2. Only then is the device looked up. A change after that belongs to the caller's own race with umount, which a
    //    status taken before has as well.
    const std::lock_guard<std::mutex> guard(m_mutex);
    if (m_mountTable.HasChanged()) {
        m_mapKnown.clear();
    }
    _Known &known = m_mapKnown[device];
    if ((!known.bAsked || known.bGivesNumberAgain) && !Ask(device, pszPath, known)) {
        return false;
    }
    ullIdentity = known.ullIdentity;
    return true;
}
