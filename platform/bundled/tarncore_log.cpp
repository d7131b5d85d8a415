#include "platform/tarncore.h"

#include "platform/bundled/log_output.h"
#include "platform/bundled/log_repeats.h"
#include "platform/bundled/log_settings.h"
#include "platform/bundled/log_text.h"
#include "platform/bundled/standard_error.h"
#include "support/call_guard.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <unistd.h>
#include <utility>

namespace {

constexpr int kLevelUnread = -1;
constexpr std::chrono::seconds kReadAgain(1); // settings that could not be read for want of memory or descriptors

constexpr size_t kMaxMessage = PATH_MAX + 1024; // bytes: the longest path and a sentence around it

// True on a thread that is inside the logger. Whatever asks for a log line there, a replaced base service or a signal
// handler, gets none: it would wait for itself.
// In the memory that a thread starts with: other thread-local memory is allocated by its first use, which ends the
// process when it cannot.
[[gnu::tls_model("initial-exec")]] constinit thread_local bool t_bInLogger = false;

class CInLogger {
  public:
    CInLogger() noexcept { t_bInLogger = true; }
    ~CInLogger() { t_bInLogger = false; }
    CInLogger(const CInLogger &) = delete;
    CInLogger &operator=(const CInLogger &) = delete;
};

class CLogger {
  public:
    CLogger() noexcept;

    [[nodiscard]] int Level() noexcept {
        const int iLevel = m_iLevel.load(std::memory_order_acquire);
        return iLevel != kLevelUnread ? iLevel : ReadLevel();
    }
    void Write(int iLevel, const char *source, int line, const char *format, va_list arguments) noexcept
        __attribute__((format(printf, 5, 0)));
    // At the end of the process: no line will come that the counts could be told with.
    void TellTheRest() noexcept;

    std::mutex m_mutex; // guards what has no lock of its own and the first setting of m_iLevel; held across a fork

  private:
    int ReadLevel() noexcept;
    std::string LinesToWrite(int iLevel, std::string_view source, int line, std::string_view message);

    std::atomic<int> m_iLevel = kLevelUnread;
    std::chrono::steady_clock::time_point m_nextRead = {}; // of the settings
    CLogFile m_file;
    CRepeats m_repeats;
    const pid_t m_process = getpid();
};

// Made when the library is loaded and never destroyed: the host's threads and late destructors may still log at its
// end.
union CForever {
    CForever() noexcept : m_logger() {}
    ~CForever() {}
    CLogger m_logger;
} g_forever;

CLogger &Logger() noexcept {
    return g_forever.m_logger;
}

__attribute__((destructor)) void EndOfLog() noexcept {
    Logger().TellTheRest();
}

CLogger::CLogger() noexcept {
    // A child must not inherit a mutex that a thread it does not have was holding, so the mutex is held across a fork.
    // A signal handler that forks in the middle of the logger would wait for itself; such a fork goes without the
    // mutex.
    [[gnu::tls_model("initial-exec")]] static constinit thread_local bool t_bLocked = false;
    const auto lock = [] {
        if ((t_bLocked = !t_bInLogger)) {
            Logger().m_mutex.lock();
        }
    };
    const auto unlock = [] {
        if (std::exchange(t_bLocked, false)) {
            Logger().m_mutex.unlock();
        }
    };
    const auto unlockInChild = [] {
        if (std::exchange(t_bLocked, false)) {
            Logger().m_repeats = {}; // what the parent has written, the child has not
            Logger().m_mutex.unlock();
        }
    };
    (void)pthread_atfork(lock, unlock, unlockInChild);
}

int CLogger::ReadLevel() noexcept {
    if (t_bInLogger) {
        return kLevelOff;
    }
    const CInLogger inLogger;
    const CCancelGuard noCancel;
    const int iError = errno;
    const std::lock_guard<std::mutex> lock(m_mutex);
    int iLevel = m_iLevel.load(std::memory_order_relaxed);
    const auto now = std::chrono::steady_clock::now();
    if (iLevel == kLevelUnread && now >= m_nextRead) {
        m_nextRead = now + kReadAgain;
        try {
            if (std::optional<_LogSettings> settings = ReadLogSettings()) {
                m_file.SetPath(settings->strFile);
                iLevel = settings->iLevel;
                m_iLevel.store(iLevel, std::memory_order_release);
            }
        } catch (...) { // out of memory: tried again
        }
    }
    errno = iError;
    return iLevel == kLevelUnread ? kLevelError : iLevel;
}

std::string LeftOutLine(const _LeftOut &leftOut) {
    return leftOut.ullLines == 0 ? std::string()
                                 : FormatLogLine(leftOut.iLevel, leftOut.szSource, leftOut.iLine,
                                                 "and " + std::to_string(leftOut.ullLines) + " more lines like these");
}

// The finished lines, none or several. Whoever asks for debug lines gets all of them.
std::string CLogger::LinesToWrite(int iLevel, std::string_view source, int line, std::string_view message) {
    std::string strLines;
    if (Level() != kLevelDebug) {
        const auto now = std::chrono::steady_clock::now();
        _LeftOut leftOut;
        while (m_repeats.TakeOverdue(now, leftOut)) {
            strLines += LeftOutLine(leftOut);
        }
        const bool bWrite = m_repeats.Admit(iLevel, source, line, message, now, leftOut);
        strLines += LeftOutLine(leftOut);
        if (!bWrite) {
            return strLines;
        }
    }
    return strLines + FormatLogLine(iLevel, source, line, message);
}

void CLogger::Write(int iLevel, const char *source, int line, const char *format, va_list arguments) noexcept {
    if (t_bInLogger) {
        return;
    }
    const CInLogger inLogger;
    const CCancelGuard noCancel;
    const int iError = errno;
    char szMessage[kMaxMessage] = "";
    const int iLength = std::vsnprintf(szMessage, sizeof szMessage, format, arguments);
    try {
        // A format that cannot be filled in still tells where the trouble was.
        std::string_view message = iLength < 0 ? format : szMessage;
        if (iLength >= static_cast<int>(sizeof szMessage)) {
            std::memcpy(szMessage + sizeof szMessage - 4, "...", 4);
        } else if (!message.empty() && message.back() == '\n') {
            message.remove_suffix(1);
        }
        const CWriteSignalGuard noWriteSignals;
        std::string strLines;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            strLines =
                m_file.Write(LinesToWrite(std::clamp<int>(iLevel, kLevelSevere, kLevelDebug), source, line, message));
        }
        WriteToStandardError(strLines);
    } catch (...) { // out of memory: the line is lost, the caller goes on
    }
    errno = iError;
}

void CLogger::TellTheRest() noexcept {
    // A forked child has counted nothing, and a thread that is stuck in a write must not hold up the end of the
    // process.
    const std::unique_lock<std::mutex> lock(m_mutex, std::try_to_lock);
    if (!lock.owns_lock() || m_process != getpid()) {
        return;
    }
    const CWriteSignalGuard noWriteSignals;
    try {
        _LeftOut leftOut;
        while (m_repeats.TakeOverdue(CRepeats::Time::max(), leftOut)) {
            WriteToStandardError(m_file.Write(LeftOutLine(leftOut)));
        }
    } catch (...) { // out of memory
    }
    ReportDroppedLines();
}

} // namespace

void error_output(int level, const char *source, int line, const char *format, ...) {
    if (format == nullptr || level > Logger().Level()) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    Logger().Write(level, source == nullptr ? "-" : source, line, format, arguments);
    va_end(arguments);
}

int is_open_debug_log_avscan(void) {
    return Logger().Level() == kLevelDebug ? 1 : 0;
}
