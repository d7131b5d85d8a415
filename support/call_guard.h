// call_guard.h - what a call that touches files owes to the thread it runs on.
#ifndef TARN_SUPPORT_CALL_GUARD_H
#define TARN_SUPPORT_CALL_GUARD_H

#include <csignal>
#include <ctime>
#include <initializer_list>
#include <pthread.h>

// Holds off thread cancellation: file calls are cancellation points, and unwinding out of one would end the process at
// the first catch-all on its way.
class CCancelGuard {
  public:
    CCancelGuard() noexcept { (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_iPrevious); }
    ~CCancelGuard() { (void)pthread_setcancelstate(m_iPrevious, nullptr); }
    CCancelGuard(const CCancelGuard &) = delete;
    CCancelGuard &operator=(const CCancelGuard &) = delete;

  private:
    int m_iPrevious = PTHREAD_CANCEL_ENABLE;
};

// Turns the signals of a refused write, SIGPIPE (no reader) and SIGXFSZ (file-size limit), into plain errors for this
// thread: blocks them, consumes one that the write raised, restores the mask. Signals pending before stay pending, and
// no process-wide handler is touched. Inside another one it does nothing.
class CWriteSignalGuard {
  public:
    CWriteSignalGuard() noexcept {
        if (s_nGuards++ > 0) {
            return;
        }
        sigset_t writeSignals;
        sigemptyset(&writeSignals);
        sigemptyset(&m_toConsume);
        sigset_t pending;
        sigemptyset(&pending);
        (void)sigpending(&pending);
        for (const int iSignal : {SIGPIPE, SIGXFSZ}) {
            sigaddset(&writeSignals, iSignal);
            if (sigismember(&pending, iSignal) == 0) {
                sigaddset(&m_toConsume, iSignal);
            }
        }
        (void)pthread_sigmask(SIG_BLOCK, &writeSignals, &m_previousMask);
    }
    ~CWriteSignalGuard() {
        if (--s_nGuards > 0) {
            return;
        }
        const timespec noWait = {0, 0};
        while (sigtimedwait(&m_toConsume, nullptr, &noWait) > 0) {
        }
        (void)pthread_sigmask(SIG_SETMASK, &m_previousMask, nullptr);
    }
    CWriteSignalGuard(const CWriteSignalGuard &) = delete;
    CWriteSignalGuard &operator=(const CWriteSignalGuard &) = delete;

  private:
    static inline thread_local int s_nGuards = 0;

    sigset_t m_previousMask; // of the outermost one
    sigset_t m_toConsume;
};

#endif
