#include "platform/nubcl_ev.h"

#include "support/call_guard.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <initializer_list>
#include <memory>
#include <new>
#include <thread>
#include <type_traits>

// A list of times and a sleep. There is nothing but timers to wait for, and so there is nothing that a host without
// descriptors could lack: a timer takes one small piece of memory, and whoever cannot have it is told. Libraries take
// two descriptors or more for each loop; some of them end the process when there are none.
namespace {

using Clock = std::chrono::steady_clock;

constexpr uint64_t kLongestPeriod = uint64_t{1} << 40U; // milliseconds, 35 years: no sum of times overflows

struct _Timer {
    cl_timerplus head; // first: callers hold its address
    _Timer *pNext;
    cl_timerplus_cb pCallback;
    std::chrono::milliseconds period;
    Clock::time_point due; // the next callback
    bool bStopped;
};
static_assert(std::is_standard_layout_v<_Timer>, "the head's address has to be the record's");

struct _ThreadLoop {
    _Timer *pFirst;
    bool bNoWait;
    bool bRunning;
};

// Plain data in the memory that a thread starts with: the first use of any other kind of thread-local object allocates,
// and ends the process when it cannot.
[[gnu::tls_model("initial-exec")]] constinit thread_local _ThreadLoop t_loop = {};

void FreeTimers(void *pLoop) {
    auto &loop = *static_cast<_ThreadLoop *>(pLoop);
    while (loop.pFirst != nullptr) {
        const std::unique_ptr<_Timer> timer(loop.pFirst);
        loop.pFirst = timer->pNext;
    }
}

// Frees the timers of a thread that ends. Made when the library is loaded, and never taken back.
struct _EndOfThread {
    _EndOfThread() noexcept : bMade(pthread_key_create(&key, FreeTimers) == 0) {}
    [[nodiscard]] bool Watch(_ThreadLoop &loop) const noexcept { return bMade && pthread_setspecific(key, &loop) == 0; }

    pthread_key_t key = 0;
    bool bMade;
};
const _EndOfThread g_endOfThread;

// The timer whose turn is next, null without one. Of equal times the older timer comes first.
_Timer *NextTimer() noexcept {
    _Timer *pNext = nullptr;
    for (_Timer *pTimer = t_loop.pFirst; pTimer != nullptr; pTimer = pTimer->pNext) {
        if (!pTimer->bStopped && (pNext == nullptr || pTimer->due <= pNext->due)) {
            pNext = pTimer;
        }
    }
    return pNext;
}

// Where this thread's list points to the timer; at null when the timer is not in it.
_Timer **FindTimer(const cl_timerplus *pHead) noexcept {
    _Timer **ppTimer = &t_loop.pFirst;
    while (*ppTimer != nullptr && &(*ppTimer)->head != pHead) {
        ppTimer = &(*ppTimer)->pNext;
    }
    return ppTimer;
}

} // namespace

int cl_ev_create_isolated_thread(pthread_t *thread, int /*flags*/, void *(*entry)(void *), void *arg) {
    if (thread == nullptr || entry == nullptr) {
        return EINVAL;
    }
    // A thread starts with its maker's mask, so there is no moment in which a signal could find it open.
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    // Faults of the thread itself still reach the host's crash handler.
    for (const int iFault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) {
        sigdelset(&all, iFault);
    }
    const int iMaskError = pthread_sigmask(SIG_SETMASK, &all, &previous);
    if (iMaskError != 0) {
        return iMaskError;
    }
    const int iError = pthread_create(thread, nullptr, entry, arg);
    (void)pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return iError;
}

void cl_ev_loop_nowait(int on) {
    t_loop.bNoWait = on != 0;
}

void cl_event_loop_once(void) {
    if (t_loop.bRunning || NextTimer() == nullptr) {
        return;
    }
    const CCancelGuard noCancel;
    if (!t_loop.bNoWait) {
        std::this_thread::sleep_until(NextTimer()->due);
    }
    // A callback may start, stop and close any timer, so the list is looked at afresh after each. A timer that has run
    // is not due again in this turn.
    const auto now = Clock::now();
    t_loop.bRunning = true;
    for (_Timer *pTimer = NextTimer(); pTimer != nullptr && pTimer->due <= now; pTimer = NextTimer()) {
        pTimer->due = now + pTimer->period;
        pTimer->pCallback(&pTimer->head);
    }
    t_loop.bRunning = false;
}

int cl_ev_cb_count(void) {
    const auto now = Clock::now();
    int nDue = 0;
    for (const _Timer *pTimer = t_loop.pFirst; pTimer != nullptr; pTimer = pTimer->pNext) {
        nDue += !pTimer->bStopped && pTimer->due <= now ? 1 : 0;
    }
    return nDue;
}

cl_timerplus *cl_timerplus_start(int /*flags*/, uint64_t periodMs, cl_timerplus_cb callback, void *userData,
                                 int /*reserved0*/, int /*reserved1*/) {
    if (callback == nullptr || periodMs == 0 || !g_endOfThread.Watch(t_loop)) {
        return nullptr;
    }
    const std::chrono::milliseconds period(std::min(periodMs, kLongestPeriod));
    auto *pTimer = new (std::nothrow) _Timer{{userData}, t_loop.pFirst, callback, period, Clock::now() + period, false};
    if (pTimer == nullptr) {
        return nullptr;
    }
    t_loop.pFirst = pTimer;
    return &pTimer->head;
}

void cl_timerplus_stop(cl_timerplus *timer) {
    if (_Timer *pTimer = *FindTimer(timer); pTimer != nullptr) {
        pTimer->bStopped = true;
    }
}

void cl_timerplus_close(cl_timerplus *timer) {
    _Timer **ppTimer = FindTimer(timer);
    if (const std::unique_ptr<_Timer> closed(*ppTimer); closed != nullptr) {
        *ppTimer = closed->pNext;
    }
}
