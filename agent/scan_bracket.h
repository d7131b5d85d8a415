// scan_bracket.h - what may be remembered of a scanned file: the two halves of LocalCacheScanBegin and
// LocalCacheScanFinish that ask the kernel.
#ifndef TARN_AGENT_SCAN_BRACKET_H
#define TARN_AGENT_SCAN_BRACKET_H

#include "interface/tarncache.h"
#include "util/medium.h"
#include "util/mount_table.h"

#include <map>
#include <mutex>
#include <tuple>

struct statfs;

// Any thread.
class CScanBracket {
  public:
    // Fills everything but size. False: no regular file is open there. Throws std::bad_alloc.
    [[nodiscard]] bool Begin(int fd, _LOCAL_CACHE_SCAN &scan);
    // Asks again; TARN_REMEMBER_..., where YES means that nothing speaks against it.
    [[nodiscard]] uint32_t Finish(const _LOCAL_CACHE_SCAN &scan) const;
    // Whether Begin filled it and no Finish has used it up.
    [[nodiscard]] static bool IsOpen(const _LOCAL_CACHE_SCAN &scan);

  private:
    using Key = std::tuple<dev_t, uint64_t, EFileSystem>; // device, the file system's own identity, kind
    struct _Known {
        EMedium eMedium;
        int64_t liNewest; // nanoseconds: a change time on it, and when on the steady clock it was met
        int64_t liMetAt;
    };
    uint32_t FindingsAbout(int fd, const struct statfs &fileSystem, const _LOCAL_CACHE_SCAN &scan, int64_t liSteady);

    const CMountTable m_mountTable;
    std::mutex m_mutex; // guards the map, and holds the table's answer and its consequence together
    std::map<Key, _Known> m_mapKnown;
};

#endif
