// The use of the cache by a command that does not scan.
#ifndef TARN_TOOLS_CACHE_CACHE_USE_H
#define TARN_TOOLS_CACHE_CACHE_USE_H

#include "tools/cache/install_root.h"

#include <cstdint>
#include <string>

enum class ECacheUse {
    Questions, // changes nothing in the installation folder, needs no free space there and works beside a scan
    Deletions, // answers as well
};

// Never sets an installation folder up. Ends the use of the cache when it goes.
class CCacheUse {
  public:
    CCacheUse(const CCacheUse &) = delete;
    CCacheUse &operator=(const CCacheUse &) = delete;
    CCacheUse() = default;
    ~CCacheUse();

    // Call it once. False when there is no cache or it cannot be used so, with the reason in strError.
    bool Start(const CInstallRoot &root, ECacheUse eUse, std::string &strError);

  private:
    bool m_bStarted = false;
};

// Why the cache does not start, as far as its code tells, and what to check.
std::string StartFailureText(const CInstallRoot &root, uint32_t ulCode);

// What has been left for the next scan to drop; empty when nothing was. Answers may rest on such records.
std::string PendingText(const CInstallRoot &root);

#endif
