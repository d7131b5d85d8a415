#include "util/file_size_signal.h"

#include <ctime>
#include <pthread.h>

namespace {

sigset_t FileSizeSignal() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGXFSZ);
    return set;
}

bool IsPending() {
    sigset_t pending;
    return sigpending(&pending) == 0 && sigismember(&pending, SIGXFSZ) == 1;
}

} // namespace

CFileSizeSignalBlock::CFileSizeSignalBlock() : m_previousMask(), m_bPendingBefore(IsPending()) {
    const sigset_t set = FileSizeSignal();
    (void)pthread_sigmask(SIG_BLOCK, &set, &m_previousMask);
}

CFileSizeSignalBlock::~CFileSizeSignalBlock() {
    if (!m_bPendingBefore && IsPending()) {
        const sigset_t set = FileSizeSignal();
        const timespec noWait = {0, 0};
        (void)sigtimedwait(&set, nullptr, &noWait);
    }
    (void)pthread_sigmask(SIG_SETMASK, &m_previousMask, nullptr);
}
