#include "tables/busy_deadline.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <sqlite3.h>

namespace {

using Nanoseconds = std::chrono::nanoseconds;

// On the steady clock; 0: none is set. In the memory that a thread starts with, so that no use has to allocate it.
[[gnu::tls_model("initial-exec")]] constinit thread_local Nanoseconds::rep t_liDeadline = 0;

Nanoseconds Now() noexcept {
    return std::chrono::steady_clock::now().time_since_epoch();
}

} // namespace

CBusyDeadline::CBusyDeadline(bool bWanted, int iMilliseconds) noexcept : m_bSets(bWanted && !IsSet()) {
    if (m_bSets) {
        t_liDeadline = (Now() + std::chrono::milliseconds(iMilliseconds)).count();
    }
}

CBusyDeadline::~CBusyDeadline() {
    if (m_bSets) {
        t_liDeadline = 0;
    }
}

bool CBusyDeadline::IsSet() noexcept {
    return t_liDeadline != 0;
}

void CBusyDeadline::Attach(sqlite3 *pDB) {
    (void)sqlite3_busy_handler(pDB, OnBusy, nullptr);
}

// SQLite calls it while it holds the connection's mutex; 1: it tries again.
int CBusyDeadline::OnBusy(void *, int nCalls) noexcept {
    constexpr Nanoseconds kLongestPause = std::chrono::milliseconds(25);
    const Nanoseconds remaining = Nanoseconds(t_liDeadline) - Now(); // negative without a deadline
    if (remaining.count() <= 0) {
        return 0;
    }
    const Nanoseconds step = std::chrono::milliseconds(1 + std::min(nCalls, 100));
    const timespec pause = {0, static_cast<long>(std::min({remaining, step, kLongestPause}).count())};
    (void)nanosleep(&pause, nullptr);
    return 1;
}
