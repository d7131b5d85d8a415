// A lock between processes: an empty file that stays where it is and is locked while its owner works.
#ifndef TARN_TOOLS_CACHE_FILE_LOCK_H
#define TARN_TOOLS_CACHE_FILE_LOCK_H

#include "support/descriptor.h"

#include <atomic>
#include <functional>
#include <string>

// The system lets go of the lock when its owner ends, however that happens.
class CFileLock {
  public:
    // Makes the file where it is missing (mode 0600). Never waits. False with the reason in strError, which is
    // strBusy when somebody else holds the lock.
    bool TryTake(const std::string &strPath, const std::string &strBusy, std::string &strError);

    // Waits until the lock is free. Calls onWaiting once, after a second. False with the reason in strError, also when
    // bStop is set before the lock is taken.
    bool Take(const std::string &strPath, const std::atomic<bool> &bStop, const std::function<void()> &onWaiting,
              std::string &strError);

    void Release() { (void)m_file.Close(); }

  private:
    enum class ETry { Taken, Busy, Failed };

    ETry TryOnce(const std::string &strPath, std::string &strError);

    CDescriptor m_file;
};

#endif
