// The use of the cache by one scan.
#ifndef TARN_TOOLS_CACHE_SESSION_H
#define TARN_TOOLS_CACHE_SESSION_H

#include "tools/cache/file_lock.h"
#include "tools/cache/install_root.h"
#include "tools/engine/verdict.h"

#include <tarncache.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <sys/stat.h>

// What the cache tells while it keeps the scan waiting.
struct _CacheListener {
    std::function<void(const std::string &strText)> onNote;     // a remark, once
    std::function<void(const std::string &strText)> onProgress; // about once a second; empty when there is no more
};

// The full cache of a scan. Start and Stop belong to the main thread; the others may be called from any.
class CCacheSession {
  public:
    CCacheSession() = default;
    CCacheSession(const CCacheSession &) = delete;
    CCacheSession &operator=(const CCacheSession &) = delete;
    ~CCacheSession() { Close(); }

    // Sets the installation folder up, starts the cache, deletes the engine's verdicts when the signatures are not
    // those of the last scan, and waits until the cache has dropped what an updater told it to, however long that
    // takes; the wait ends early, and well, once bStop is set. False when the cache cannot be used, another scan's use
    // included, with the reason and what to check in strError.
    bool Start(const CInstallRoot &root, const std::string &strFingerprint, const std::atomic<bool> &bStop,
               const _CacheListener &listener, std::string &strError);

    // Waits until everything that was added is stored or lost, and closes the cache. Returns how many verdicts were
    // lost.
    uint64_t Stop(const _CacheListener &listener);

    bool IsInUse() const { return m_bInUse; }

    // True when the cache knows the file, unchanged, by a verdict of these very signatures. status: the file's own.
    bool Find(const std::string &strPath, const struct stat &status, _FileVerdict &verdict) const;

    // Before the first byte of an open file is read. False when there is no cache, or it cannot watch the file.
    bool BeginScan(int fd, _LOCAL_CACHE_SCAN &scan) const;

    // After the last one: remembers a clean or infected file unless something speaks against it. TARN_REMEMBER_...
    uint32_t FinishScan(_LOCAL_CACHE_SCAN &scan, const std::string &strPath, const _FileVerdict &verdict) const;

  private:
    bool Open(const CInstallRoot &root, const std::string &strFingerprint, const std::atomic<bool> &bStop,
              const _CacheListener &listener, std::string &strError);
    void Close();

    bool m_bInUse = false; // constant while workers run, like the tag
    uint32_t m_ulTag = 0;
    CFileLock m_scanLock;   // for as long as the cache is used
    CFileLock m_updateLock; // until what was pending is dropped
};

#endif
