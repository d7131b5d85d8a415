#include "platform/nubcl_ev.h"

#include <cerrno>
#include <csignal>
#include <initializer_list>
#include <memory>
#include <new>
#include <type_traits>
#include <unistd.h>
#include <uv.h>

namespace {

class CThreadLoop;

struct _Timer {
    cl_timerplus head; // first: callers hold its address
    uv_timer_t handle;
    cl_timerplus_cb pCallback;
    CThreadLoop *pOwner;
};
static_assert(std::is_standard_layout_v<_Timer>, "the head's address has to be the record's");

_Timer *RecordOf(cl_timerplus *timer) {
    return reinterpret_cast<_Timer *>(timer);
}
uv_handle_t *HandleOf(_Timer *pTimer) {
    return reinterpret_cast<uv_handle_t *>(&pTimer->handle);
}
void FreeRecord(uv_handle_t *pHandle) {
    delete static_cast<_Timer *>(pHandle->data);
}

// One thread's loop, made by its first timer; a thread without timers costs nothing. Only its own thread touches it.
class CThreadLoop {
  public:
    CThreadLoop() = default;
    ~CThreadLoop();
    CThreadLoop(const CThreadLoop &) = delete;
    CThreadLoop &operator=(const CThreadLoop &) = delete;

    void SetNoWait(bool bNoWait) noexcept { m_bNoWait = bNoWait; }
    _Timer *StartTimer(uint64_t ullPeriod, cl_timerplus_cb pCallback, void *pUserData) noexcept;
    void RunOnce() noexcept;
    [[nodiscard]] int CountDue() noexcept;

  private:
    [[nodiscard]] bool Make() noexcept;
    void FollowFork() noexcept;

    uv_loop_t m_loop = {};
    pid_t m_process = 0; // whose kernel objects the loop holds; 0 while there is no loop
    bool m_bNoWait = false;
    bool m_bRunning = false;
};

thread_local CThreadLoop t_loop;

CThreadLoop::~CThreadLoop() {
    if (m_process == 0) {
        return;
    }
    FollowFork();
    uv_walk(
        &m_loop,
        [](uv_handle_t *pHandle, void *) {
            if (uv_is_closing(pHandle) == 0) {
                uv_close(pHandle, FreeRecord);
            }
        },
        nullptr);
    (void)uv_run(&m_loop, UV_RUN_DEFAULT); // only closings are left to run
    (void)uv_loop_close(&m_loop);
    m_process = 0;
}

bool CThreadLoop::Make() noexcept {
    if (m_process == 0 && uv_loop_init(&m_loop) == 0) {
        m_process = getpid();
    }
    return m_process != 0;
}

// A child shares the parent's poll descriptor until it gets its own.
void CThreadLoop::FollowFork() noexcept {
    const pid_t process = getpid();
    if (m_process != process) {
        (void)uv_loop_fork(&m_loop); // after a failure the timers stand still, and nothing else could be done
        m_process = process;
    }
}

_Timer *CThreadLoop::StartTimer(uint64_t ullPeriod, cl_timerplus_cb pCallback, void *pUserData) noexcept {
    if (!Make()) {
        return nullptr;
    }
    FollowFork();
    std::unique_ptr<_Timer> timer(new (std::nothrow) _Timer{{pUserData}, {}, pCallback, this});
    if (timer == nullptr || uv_timer_init(&m_loop, &timer->handle) != 0) {
        return nullptr;
    }
    _Timer *pTimer = timer.release(); // the loop knows the handle from here on, so only closing it frees the record
    pTimer->handle.data = pTimer;
    uv_update_time(&m_loop); // the loop's clock stands still between turns
    const auto onTimer = [](uv_timer_t *pHandle) {
        _Timer *pDue = static_cast<_Timer *>(pHandle->data);
        pDue->pCallback(&pDue->head);
    };
    if (uv_timer_start(&pTimer->handle, onTimer, ullPeriod, ullPeriod) != 0) {
        uv_close(HandleOf(pTimer), FreeRecord);
        return nullptr;
    }
    return pTimer;
}

void CThreadLoop::RunOnce() noexcept {
    if (m_process == 0 || m_bRunning) { // the loop cannot be entered twice
        return;
    }
    FollowFork();
    m_bRunning = true;
    (void)uv_run(&m_loop, m_bNoWait ? UV_RUN_NOWAIT : UV_RUN_ONCE); // tells only whether timers remain
    m_bRunning = false;
}

int CThreadLoop::CountDue() noexcept {
    if (m_process == 0) {
        return 0;
    }
    uv_update_time(&m_loop);
    int nDue = 0;
    uv_walk(
        &m_loop,
        [](uv_handle_t *pHandle, void *pCount) {
            if (uv_is_active(pHandle) != 0 && uv_timer_get_due_in(reinterpret_cast<uv_timer_t *>(pHandle)) == 0) {
                ++*static_cast<int *>(pCount);
            }
        },
        &nDue);
    return nDue;
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
    t_loop.SetNoWait(on != 0);
}

void cl_event_loop_once(void) {
    t_loop.RunOnce();
}

int cl_ev_cb_count(void) {
    return t_loop.CountDue();
}

cl_timerplus *cl_timerplus_start(int /*flags*/, uint64_t periodMs, cl_timerplus_cb callback, void *userData,
                                 int /*reserved0*/, int /*reserved1*/) {
    if (callback == nullptr || periodMs == 0) {
        return nullptr;
    }
    _Timer *pTimer = t_loop.StartTimer(periodMs, callback, userData);
    return pTimer == nullptr ? nullptr : &pTimer->head;
}

void cl_timerplus_stop(cl_timerplus *timer) {
    if (timer != nullptr && RecordOf(timer)->pOwner == &t_loop) {
        (void)uv_timer_stop(&RecordOf(timer)->handle);
    }
}

void cl_timerplus_close(cl_timerplus *timer) {
    if (timer == nullptr || RecordOf(timer)->pOwner != &t_loop) {
        return;
    }
    uv_handle_t *pHandle = HandleOf(RecordOf(timer));
    if (uv_is_closing(pHandle) == 0) {
        uv_close(pHandle, FreeRecord);
    }
}
