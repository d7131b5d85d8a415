#include "tools/cache/file_lock.h"

#include "tools/text/text.h"

#include <ctime>
#include <sys/file.h>

CFileLock::ETry CFileLock::TryOnce(const std::string &strPath, std::string &strError) {
    CDescriptor file(open(strPath.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    if (file.IsOpen() && flock(file.Get(), LOCK_EX | LOCK_NB) == 0) {
        m_file = std::move(file);
        return ETry::Taken;
    }
    if (file.IsOpen() && errno == EWOULDBLOCK) {
        return ETry::Busy;
    }
    strError = "cannot lock " + ErrnoText(strPath, errno);
    return ETry::Failed;
}

bool CFileLock::TryTake(const std::string &strPath, const std::string &strBusy, std::string &strError) {
    const ETry eTry = TryOnce(strPath, strError);
    if (eTry == ETry::Busy) {
        strError = strBusy;
    }
    return eTry == ETry::Taken;
}

bool CFileLock::Take(const std::string &strPath, const std::atomic<bool> &bStop, const std::function<void()> &onWaiting,
                     std::string &strError) {
    constexpr timespec kStep = {0, 20000000}; // 20 milliseconds
    constexpr size_t kPatience = 50;          // steps; a second
    ETry eTry = TryOnce(strPath, strError);
    for (size_t nSteps = 1; eTry == ETry::Busy && !bStop.load(); ++nSteps) {
        if (nSteps == kPatience) {
            onWaiting();
        }
        (void)nanosleep(&kStep, nullptr);
        eTry = TryOnce(strPath, strError);
    }
    if (eTry == ETry::Busy) {
        strError = "interrupted";
    }
    return eTry == ETry::Taken;
}
