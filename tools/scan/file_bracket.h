// What goes before and after the scan of one open file: its statuses, and whether its verdict is remembered.
#ifndef TARN_TOOLS_SCAN_FILE_BRACKET_H
#define TARN_TOOLS_SCAN_FILE_BRACKET_H

#include "tools/cache/session.h"
#include "tools/engine/verdict.h"
#include "tools/scan/counters.h"

#include <tarncache.h>

#include <cstdint>
#include <string>
#include <sys/stat.h>

// For one thread and one file. Holds nothing, so that it may be dropped at any moment.
class CFileBracket {
  public:
    // ulAllow: TARN_ALLOW_...
    CFileBracket(const CCacheSession &cache, uint32_t ulAllow) : m_cache(cache), m_ulAllow(ulAllow) {}

    // Before the first byte is read; the descriptor stays open until Finish. False with errno.
    bool Begin(int fd);

    const struct stat &Status() const { return m_scan.status; } // taken by Begin

    // After the last byte: remembers a clean or infected file that did not change, or says why not. A change is told
    // with or without a cache, but not behind an error, a time-out or an interruption, which are no verdicts anyway.
    ENotCached Finish(const std::string &strPath, const _FileVerdict &verdict);

  private:
    ENotCached Remember(const std::string &strPath, const _FileVerdict &verdict);
    bool HasChanged() const;

    const CCacheSession &m_cache;
    const uint32_t m_ulAllow;
    int m_fd = -1;
    bool m_bWatched = false; // by the cache
    _LOCAL_CACHE_SCAN m_scan = {};
};

#endif
