#include "tests/support/services.h"

#include "platform/nubcl_ev.h"
#include "platform/tarncore.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>
#include <thread>
#include <unistd.h>

namespace {

struct _LogLine {
    int iLevel;
    std::string strSource, strText;
};

std::mutex g_logMutex;
std::vector<_LogLine> g_vecLines;
std::string g_strSource;
std::atomic<bool> g_bDebug = false;

struct _Timer : cl_timerplus {
    cl_timerplus_cb callback;
};
thread_local std::unique_ptr<_Timer> t_pTimer;

} // namespace

namespace RecordedLog {

void Clear() {
    const std::lock_guard guard(g_logMutex);
    g_vecLines.clear();
}
void SetSource(const std::string &strSource) {
    Clear();
    g_strSource = strSource;
}
void SetDebug(bool bOn) {
    g_bDebug = bOn;
}
std::vector<std::string> Texts(int iLevel) {
    std::vector<std::string> vecTexts;
    const std::lock_guard guard(g_logMutex);
    for (const _LogLine &line : g_vecLines) {
        if (iLevel == 0 || line.iLevel == iLevel) {
            vecTexts.push_back(line.strSource == g_strSource ? line.strText : line.strSource + ": " + line.strText);
        }
    }
    return vecTexts;
}
size_t Count(const std::string &strText) {
    const std::vector<std::string> vecTexts = Texts();
    return static_cast<size_t>(std::count(vecTexts.begin(), vecTexts.end(), strText));
}
bool Contains(const std::string &strText) {
    return Count(strText) > 0;
}

} // namespace RecordedLog

bool WaitFor(const std::function<bool()> &condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// The replaced services.
extern "C" {

void error_output(int level, const char *source, int, const char *format, ...) {
    char szText[16384] = {};
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(szText, sizeof szText, format, arguments);
    va_end(arguments);
    const std::lock_guard guard(g_logMutex);
    g_vecLines.push_back({level, source, szText});
}

int is_open_debug_log_avscan(void) {
    return g_bDebug ? 1 : 0;
}

time_t time(time_t *pTime) noexcept {
    timespec now = {};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    const time_t result = TestClock::s_liTime >= 0 ? static_cast<time_t>(TestClock::s_liTime) : now.tv_sec;
    if (pTime != nullptr) {
        *pTime = result;
    }
    return result;
}

// SQLite waits for a busy database with it; how long carries no meaning for a test.
int usleep(useconds_t) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return 0;
}

int cl_ev_create_isolated_thread(pthread_t *thread, int, void *(*entry)(void *), void *arg) {
    return TestLoop::s_iThreadError != 0 ? TestLoop::s_iThreadError.load()
                                         : pthread_create(thread, nullptr, entry, arg);
}

void cl_ev_loop_nowait(int) {}

void cl_event_loop_once(void) {
    if (t_pTimer != nullptr && TestLoop::s_bFire.exchange(false)) {
        t_pTimer->callback(t_pTimer.get());
    }
}

int cl_ev_cb_count(void) {
    if (TestLoop::s_iDueCallbacks < 0) {
        throw std::bad_alloc();
    }
    return TestLoop::s_iDueCallbacks;
}

cl_timerplus *cl_timerplus_start(int, uint64_t periodMs, cl_timerplus_cb callback, void *userData, int, int) {
    if (TestLoop::s_bFailTimers) {
        return nullptr;
    }
    t_pTimer = std::make_unique<_Timer>(_Timer{{userData}, callback});
    TestLoop::s_ullPeriod = periodMs;
    return t_pTimer.get();
}

void cl_timerplus_stop(cl_timerplus *) {
    TestLoop::s_ullPeriod = 0;
}

void cl_timerplus_close(cl_timerplus *) {
    t_pTimer.reset();
}
}
