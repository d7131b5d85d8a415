// The use of the cache by one scan.
#ifndef TARN_TOOLS_CACHE_SESSION_H
#define TARN_TOOLS_CACHE_SESSION_H

#include "tools/cache/added_records.h"
#include "tools/cache/install_root.h"
#include "tools/engine/verdict.h"
#include "tools/file_lock.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

// What the start of the cache tells while it goes on.
struct _CacheListener {
    std::function<void(const std::string &strText)> onNote;     // a remark, once
    std::function<void(const std::string &strText)> onProgress; // about once a second; empty when there is no more
};

// The full cache of a scan. Start and Stop belong to the main thread; the rest may be called from the workers.
class CCacheSession {
  public:
    CCacheSession() = default;
    CCacheSession(const CCacheSession &) = delete;
    CCacheSession &operator=(const CCacheSession &) = delete;
    ~CCacheSession() { Stop(); }

    // Sets the installation folder up, marks the engine's records for dropping when the signatures are not those of
    // the last scan, starts the cache and waits until it has dropped what it was told to, however long that takes; the
    // wait ends early, and well, once bStop is set. False when the cache cannot be used, another scan's use included,
    // with the reason and what to check in strError.
    bool Start(const CInstallRoot &root, const std::string &strFingerprint, const std::atomic<bool> &bStop,
               const _CacheListener &listener, std::string &strError);

    // Waits for the writer when anything was added; returns how many records it could not store.
    uint64_t CountLost() const { return m_bInUse ? m_added.CountLost(m_ulTag) : 0; }

    // Writes everything that is queued and closes the cache.
    void Stop();

    bool IsInUse() const { return m_bInUse; }

    // True when the cache knows the file, unchanged, by a verdict of these very signatures.
    bool Find(const std::string &strPath, _FileVerdict &verdict) const;

    // False when the cache refuses the verdict.
    bool Add(const std::string &strPath, const _FileVerdict &verdict);

    // A record with this MD5 was added for a file that changed in that very moment; Stop deletes it.
    void TakeBack(const std::string &strMD5);

  private:
    bool Open(const CInstallRoot &root, const std::string &strFingerprint, const std::atomic<bool> &bStop,
              const _CacheListener &listener, std::string &strError);

    bool m_bInUse = false; // constant while workers run, like the tag
    uint32_t m_ulTag = 0;
    CFileLock m_scanLock;   // for as long as the cache is used
    CFileLock m_updateLock; // until what was pending is dropped
    CAddedRecords m_added;
    std::mutex m_mutex; // guards the list
    std::vector<std::string> m_vecTakenBack;
};

#endif
