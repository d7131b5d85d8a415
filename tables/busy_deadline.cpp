#include "tables/busy_deadline.h"

#include <algorithm>
#include <ctime>
#include <sqlite3.h>

namespace {

using Clock = std::chrono::steady_clock;

thread_local Clock::time_point t_deadline; // the clock's zero: none is set

} // namespace

CBusyDeadline::CBusyDeadline(bool bWanted, int iMilliseconds) noexcept : m_bSets(bWanted && !IsSet()) {
    if (m_bSets) {
        t_deadline = Clock::now() + std::chrono::milliseconds(iMilliseconds);
    }
}

CBusyDeadline::~CBusyDeadline() {
    if (m_bSets) {
        t_deadline = {};
    }
}

bool CBusyDeadline::IsSet() noexcept {
    return t_deadline != Clock::time_point();
}

void CBusyDeadline::Attach(sqlite3 *pDB) {
    (void)sqlite3_busy_handler(pDB, OnBusy, nullptr);
}

// SQLite calls it while it holds the connection's mutex; 1: it tries again.
int CBusyDeadline::OnBusy(void *, int nCalls) noexcept {
    constexpr std::chrono::nanoseconds kLongestPause = std::chrono::milliseconds(25);
    const std::chrono::nanoseconds remaining = t_deadline - Clock::now(); // negative without a deadline
    if (remaining.count() <= 0) {
        return 0;
    }
    const std::chrono::nanoseconds step = std::chrono::milliseconds(1 + std::min(nCalls, 100));
    const timespec pause = {0, static_cast<long>(std::min({remaining, step, kLongestPause}).count())};
    (void)nanosleep(&pause, nullptr);
    return 1;
}
