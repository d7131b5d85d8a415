#include "platform/tarncore.h"

#include "formats/installation.h"
#include "platform/bundled/log_output.h"
#include "platform/bundled/log_text.h"
#include "platform/nubbase.h"
#include "support/call_guard.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <strings.h>
#include <utility>

namespace {

constexpr int kLevelUnread = -1;

constexpr size_t kMaxMessage = PATH_MAX + 1024; // bytes: the longest path and a sentence around it
constexpr char kConfigSection[] = "log";

struct _LogSettings {
    int iLevel = kLevelError;
    std::string strFile; // empty: standard error
};

int ParseLevel(const std::string &strLevel) {
    for (int i = kLevelOff; i <= kLevelDebug; ++i) {
        if (strcasecmp(strLevel.c_str(), kLevelNames[i]) == 0) {
            return i;
        }
    }
    return kLevelError;
}

std::string AbsolutePath(const std::string &strPath) {
    char szExpanded[PATH_MAX];
    if (dirutils_path_transform(strPath.c_str(), szExpanded, sizeof szExpanded) == 0 || szExpanded[0] == '\0') {
        return {};
    }
    // Absolute, because the file is opened again at each rotation and the host may change its folder meanwhile.
    std::error_code error;
    return std::filesystem::absolute(szExpanded, error).native();
}

_LogSettings ReadSettings() {
    const auto fromEnvironment = [](const char *pszName) -> std::optional<std::string> {
        const char *pszValue = secure_getenv(pszName);
        return pszValue == nullptr || pszValue[0] == '\0' ? std::nullopt : std::optional<std::string>(pszValue);
    };
    std::optional<std::string> level = fromEnvironment("TARN_LOG_LEVEL");
    std::optional<std::string> file = fromEnvironment("TARN_LOG_FILE");
    char szConfig[PATH_MAX];
    if ((!level || !file) && dirutils_path_transform(kConfigPath, szConfig, sizeof szConfig) != 0) {
        const std::unique_ptr<void, decltype(&ini_file_free)> ini(ini_file_load(szConfig), &ini_file_free);
        const auto fromFile = [&ini](const char *pszKey) {
            const char *pszValue = ini == nullptr ? nullptr : ini_file_get(ini.get(), kConfigSection, pszKey);
            return std::string(pszValue == nullptr ? "" : pszValue);
        };
        level = level ? level : fromFile("level");
        file = file ? file : fromFile("file");
    }
    return {ParseLevel(level.value_or("")), AbsolutePath(file.value_or(""))};
}

// True on a thread that is inside the logger. Whatever asks for a log line there, a replaced base service or a signal
// handler, gets none: it would wait for itself.
thread_local bool t_bInLogger = false;

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
    void Close() noexcept;

    std::mutex m_mutex; // guards m_file and the first setting of m_iLevel; held across a fork

  private:
    int ReadLevel() noexcept;
    std::string WriteToFile(std::string strLine) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_file.Write(std::move(strLine));
    }

    std::atomic<int> m_iLevel = kLevelUnread;
    CLogFile m_file;
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

__attribute__((destructor)) void CloseLogger() noexcept {
    Logger().Close();
}

CLogger::CLogger() noexcept {
    // A child must not inherit a mutex that a thread it does not have was holding, so the mutex is held across a fork.
    // A signal handler that forks in the middle of the logger would wait for itself; such a fork goes without the
    // mutex.
    static thread_local bool t_bLocked = false;
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
    (void)pthread_atfork(lock, unlock, unlock);
}

int CLogger::ReadLevel() noexcept {
    if (t_bInLogger) {
        return kLevelOff;
    }
    const CInLogger inLogger;
    const CCancelGuard noCancel;
    const int iError = errno;
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_iLevel.load(std::memory_order_relaxed) == kLevelUnread) {
        int iLevel = kLevelError;
        try {
            _LogSettings settings = ReadSettings();
            m_file.SetPath(std::move(settings.strFile));
            iLevel = settings.iLevel;
        } catch (...) { // out of memory: the defaults stand
        }
        m_iLevel.store(iLevel, std::memory_order_release);
    }
    errno = iError;
    return m_iLevel.load(std::memory_order_relaxed);
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
        std::string strLine = FormatLogLine(std::clamp<int>(iLevel, kLevelSevere, kLevelDebug), source, line, message);
        const CWriteSignalGuard noWriteSignals;
        WriteToStandardError(WriteToFile(std::move(strLine)));
    } catch (...) { // out of memory: the line is lost, the caller goes on
    }
    errno = iError;
}

void CLogger::Close() noexcept {
    // A thread that is stuck in a write must not hold up the end of the process.
    const std::unique_lock<std::mutex> lock(m_mutex, std::try_to_lock);
    if (lock.owns_lock()) {
        const CWriteSignalGuard noWriteSignals;
        m_file.Close();
    }
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
