// A lock between processes: an empty file that stays where it is and is locked while its owner works.
#ifndef TARN_TOOLS_CACHE_FILE_LOCK_H
#define TARN_TOOLS_CACHE_FILE_LOCK_H

#include "support/descriptor.h"

#include <atomic>
#include <functional>
#include <string>

enum class ELock { Taken, Busy, Failed };

// The system lets go of the lock when its owner ends, however that happens.
class CFileLock {
  public:
    // Makes the file where it is missing (mode 0600). Never waits. ELock::Failed with the reason in strError.
    ELock TryTake(const std::string &strPath, std::string &strError);

    // Waits until the lock is free or bStop is set (ELock::Busy then). Calls onWaiting once, after a second.
    ELock Take(const std::string &strPath, const std::atomic<bool> &bStop, const std::function<void()> &onWaiting,
               std::string &strError);

    void Release() { (void)m_file.Close(); }

  private:
    CDescriptor m_file;
};

#endif
