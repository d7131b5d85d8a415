// The use of the cache by a command that does not scan.
#ifndef TARN_TOOLS_CACHE_CACHE_USE_H
#define TARN_TOOLS_CACHE_CACHE_USE_H

#include "tools/cache/install_root.h"

#include <cstdint>
#include <string>

// The cache without its writer, for commands that ask or delete. Never sets an installation folder up.
class CCacheUse {
  public:
    CCacheUse() = default;
    CCacheUse(const CCacheUse &) = delete;
    CCacheUse &operator=(const CCacheUse &) = delete;
    ~CCacheUse();

    // False when there is no cache or it does not start, with the reason in strError.
    bool Start(const CInstallRoot &root, std::string &strError);

  private:
    bool m_bStarted = false;
};

// The stored records; the cache has to be started.
bool CountRecords(uint32_t &ulRecords, std::string &strError);

// Why the cache does not start, as far as its code tells, and what to check.
std::string StartFailureText(const CInstallRoot &root, uint32_t ulCode);

// What has been left for the next scan to drop; empty when nothing was. Answers may rest on such records.
std::string PendingText(const CInstallRoot &root);

#endif
