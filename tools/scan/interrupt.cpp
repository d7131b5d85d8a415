#include "tools/scan/interrupt.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

std::atomic<int> CInterrupt::s_nSignals = 0;
std::atomic<bool> CInterrupt::s_bArmed = false;
std::atomic<bool> CInterrupt::s_bStop = false;
int CInterrupt::s_fdEvent = -1;

static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free,
              "the signal handler uses them");

void CInterrupt::OnSignal(int) {
    if (s_nSignals.fetch_add(1) > 0 || !s_bArmed.load()) {
        _exit(130);
    }
    const int iSavedErrno = errno;
    RequestStop();
    errno = iSavedErrno;
}

bool CInterrupt::Install() {
    s_fdEvent = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction handle = {};
    handle.sa_handler = OnSignal;
    handle.sa_flags = SA_RESTART;
    bool bDone =
        s_fdEvent >= 0 && sigaction(SIGPIPE, &ignore, nullptr) == 0 && sigaction(SIGXFSZ, &ignore, nullptr) == 0;
    for (const int iSignal : std::array<int, 3>{SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction inherited = {};
        bDone = bDone && sigaction(iSignal, nullptr, &inherited) == 0;
        // A program started with nohup or in the background of a plain shell keeps ignoring what it was told to.
        if (bDone && inherited.sa_handler != SIG_IGN) {
            bDone = sigaction(iSignal, &handle, nullptr) == 0;
        }
    }
    return bDone;
}

void CInterrupt::Arm() {
    s_bArmed.store(true);
}

void CInterrupt::RequestStop() {
    s_bStop.store(true);
    Wake();
}

void CInterrupt::Wake() {
    const uint64_t ullOne = 1;
    const ssize_t nIgnored = write(s_fdEvent, &ullOne, sizeof ullOne);
    (void)nIgnored; // only a full counter fails, and that wakes as well
}

void CInterrupt::WaitForEvent(int iMilliseconds) {
    struct pollfd event = {};
    event.fd = s_fdEvent;
    event.events = POLLIN;
    uint64_t ullCount = 0;
    if (poll(&event, 1, iMilliseconds) > 0) {
        const ssize_t nIgnored = read(s_fdEvent, &ullCount, sizeof ullCount);
        (void)nIgnored;
    }
}
