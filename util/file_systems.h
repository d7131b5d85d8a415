// file_systems.h - what tells one file system from another, asked once for each device.
#ifndef TARN_UTIL_FILE_SYSTEMS_H
#define TARN_UTIL_FILE_SYSTEMS_H

#include "util/mount_table.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <sys/types.h>

// Device numbers change from boot to boot on some file systems, and after an unmount another one may get the number.
// So the number that the file system itself gives (f_fsid) counts, together with its kind and what it lies on. They are
// kept for each device until the mount table changes.
class CFileSystems {
  public:
    CFileSystems() = default;
    CFileSystems(const CFileSystems &) = delete;
    CFileSystems &operator=(const CFileSystems &) = delete;

    // The identity of the file system that has this device number; pszPath names something on it. False when the path
    // leads to another device by now, or cannot be opened. Any thread. Throws std::bad_alloc.
    [[nodiscard]] bool IdentityOf(dev_t device, const char *pszPath, uint64_t &ullIdentity);

  private:
    struct _Known {
        bool bAsked;
        bool bGivesNumberAgain; // a subvolume that is deleted leaves its device number to the next, without a mount
        uint64_t ullNumber;
        uint64_t ullIdentity;
    };
    static bool Ask(dev_t device, const char *pszPath, _Known &known);

    CMountTable m_mountTable;
    std::mutex m_mutex; // guards the map, and holds the table's answer and its consequence together
    std::map<dev_t, _Known> m_mapKnown;
};

#endif
