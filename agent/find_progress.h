// find_progress.h - whom a walk tells where it is.
#ifndef TARN_AGENT_FIND_PROGRESS_H
#define TARN_AGENT_FIND_PROGRESS_H

#include <mutex>

class CFindProgress {
  public:
    using Function = void (*)(const char *pszFolder, void *pContext);

    // Null ends it. When this returns, the former function is not running any more; so it must not be called from
    // there.
    void Set(Function pOnFolder, void *pContext) {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_pOnFolder = pOnFolder;
        m_pContext = pContext;
    }
    // Any number of walks at once; they take turns in the function.
    void Tell(const char *pszFolder) {
        const std::lock_guard<std::mutex> guard(m_mutex);
        if (m_pOnFolder != nullptr) {
            m_pOnFolder(pszFolder, m_pContext);
        }
    }

  private:
    std::mutex m_mutex; // guards what follows; held while the function runs
    Function m_pOnFolder = nullptr;
    void *m_pContext = nullptr;
};

#endif
