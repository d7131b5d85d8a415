#include "platform/bundled/standard_error.h"

#include "platform/bundled/log_text.h"
#include "support/descriptor.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>

namespace {

constexpr char kReopened[] = "/proc/self/fd/2";

std::atomic<uint64_t> g_ullDropped = 0; // lines
std::atomic<bool> g_bTorn = false;      // the last line was taken in part only

// Standard error for as long as one text is written. Others share its open file description, so O_NONBLOCK cannot be
// set on it, and a pipe that poll() calls writable may be full a moment later because of another writer.
class CSink {
  public:
    CSink() noexcept { m_bKnown = fstat(STDERR_FILENO, &m_status) == 0; }

    // As write(), and -1 with EAGAIN instead of waiting. Text may be taken in part.
    [[nodiscard]] ssize_t Write(std::string_view text) noexcept {
        if (!m_bKnown || S_ISREG(m_status.st_mode)) {
            return write(STDERR_FILENO, text.data(), text.size());
        }
        if (S_ISSOCK(m_status.st_mode)) {
            return send(STDERR_FILENO, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        }
        const iovec part = {const_cast<char *>(text.data()), text.size()};
        const ssize_t nWritten = m_own.IsOpen() ? -1 : pwritev2(STDERR_FILENO, &part, 1, -1, RWF_NOWAIT);
        if (nWritten >= 0 || (!m_own.IsOpen() && errno != EOPNOTSUPP && errno != EINVAL && errno != ENOSYS)) {
            return nWritten;
        }
        return WriteToOwn(text);
    }

  private:
    // Pipes of kernels before 6.4, named pipes and terminals. A description of our own may be set to O_NONBLOCK; it is
    // closed at once, since a pipe's reader waits until the last writer has closed.
    ssize_t WriteToOwn(std::string_view text) noexcept {
        if (!m_own.IsOpen() && m_bMayReopen) {
            m_own = CDescriptor(open(kReopened, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
            m_bMayReopen = m_own.IsOpen();
        }
        if (m_own.IsOpen()) {
            return write(m_own.Get(), text.data(), text.size());
        }
        // No /proc, no descriptor, or no permission to open what was handed down: only another writer that fills the
        // pipe between these two calls could make the second one wait.
        pollfd ready = {STDERR_FILENO, POLLOUT, 0};
        if (poll(&ready, 1, 0) == 0) {
            errno = EAGAIN;
            return -1;
        }
        return write(STDERR_FILENO, text.data(), std::min<size_t>(text.size(), PIPE_BUF));
    }

    struct stat m_status = {};
    CDescriptor m_own;
    bool m_bKnown = false;
    bool m_bMayReopen = true;
};

// False when the text would have had to wait. When it is refused for good there is nobody left to tell.
bool Put(CSink &sink, std::string_view text) noexcept {
    bool bStarted = false;
    while (!text.empty()) {
        const ssize_t nWritten = sink.Write(text);
        if (nWritten < 0 && errno == EINTR) {
            continue;
        }
        if (nWritten < 0) {
            const bool bFull = errno == EAGAIN;
            if (bStarted && bFull) {
                g_bTorn = true;
            }
            return !bFull;
        }
        bStarted = true;
        text.remove_prefix(static_cast<size_t>(nWritten));
    }
    return true;
}

bool PutReport(CSink &sink) noexcept {
    if (g_bTorn.load() && !Put(sink, "\n")) {
        return false;
    }
    g_bTorn = false;
    const uint64_t ullDropped = g_ullDropped.exchange(0);
    if (ullDropped == 0) {
        return true;
    }
    try {
        const std::string strReport =
            FormatLogLine(kLevelError, "tarncore", __LINE__,
                          std::to_string(ullDropped) + " lines dropped: standard error did not take them");
        if (Put(sink, strReport)) {
            return true;
        }
    } catch (...) { // out of memory: said later
    }
    g_ullDropped += ullDropped;
    return false;
}

} // namespace

void WriteToStandardError(std::string_view lines) noexcept {
    CSink sink;
    if (!lines.empty() && !(PutReport(sink) && Put(sink, lines))) {
        g_ullDropped += static_cast<uint64_t>(std::count(lines.begin(), lines.end(), '\n'));
    }
}

void ReportDroppedLines() noexcept {
    CSink sink;
    (void)PutReport(sink);
}
