#include "platform/bundled/log_output.h"

#include "platform/bundled/log_text.h"
#include "support/descriptor.h"

#include <cerrno>
#include <exception>
#include <fcntl.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr size_t kMaxFileSize = size_t{10} << 20U; // bytes
constexpr size_t kOlderFiles = 2;
constexpr std::chrono::seconds kRetryInterval(60);

// Runs before the sink opens its file, at the start and after each rotation. Left alone, the sink would create the file
// readable by all, create missing folders, follow a link and wait for a fifo; a scanner that runs as root wants none of
// these. After a rotation (bRotated) the former file has been renamed; when that failed, the sink would empty it.
void CreatePrivately(const std::string &strPath, bool bRotated) {
    const CDescriptor file(
        open(strPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0600));
    struct stat status = {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) {
        throw spdlog::spdlog_ex("cannot open the log file", errno);
    }
    if (!S_ISREG(status.st_mode)) {
        throw spdlog::spdlog_ex("the log file is not a regular file");
    }
    if (bRotated && status.st_size > 0) {
        throw spdlog::spdlog_ex("the log file cannot be renamed");
    }
}

} // namespace

void WriteToStandardError(std::string_view text) noexcept {
    while (!text.empty()) {
        const ssize_t nWritten = write(STDERR_FILENO, text.data(), text.size());
        if (nWritten < 0 && errno != EINTR) {
            return; // nobody is left to tell
        }
        text.remove_prefix(nWritten > 0 ? static_cast<size_t>(nWritten) : 0);
    }
}

CLogFile::CLogFile() = default;
CLogFile::~CLogFile() = default;

void CLogFile::SetPath(std::string strPath) {
    m_strPath = std::move(strPath);
}

std::string CLogFile::Write(std::string strLine) {
    if (m_strPath.empty()) {
        return strLine;
    }
    const auto now = std::chrono::steady_clock::now();
    if (m_pFile == nullptr && now < m_nextTry) {
        return strLine;
    }
    try {
        if (m_pFile == nullptr) {
            Open();
        }
        m_pFile->log(spdlog::details::log_msg({}, {}, spdlog::level::info, strLine));
        m_pFile->flush(); // nothing stays in the stream's buffer, where a fork would double it
        return {};
    } catch (const std::exception &error) {
        m_pFile.reset(); // after a failed rotation the sink holds no stream and must not be used again
        m_nextTry = now + kRetryInterval;
        return FormatLogLine(kLevelError, "tarncore", __LINE__, m_strPath + ": " + error.what()) + strLine;
    }
}

void CLogFile::Close() noexcept {
    m_pFile.reset();
    m_strPath.clear();
}

void CLogFile::Open() {
    spdlog::file_event_handlers handlers;
    handlers.before_open = [bOpened = false](const std::string &strPath) mutable {
        CreatePrivately(strPath, std::exchange(bOpened, true));
    };
    auto file =
        std::make_unique<spdlog::sinks::rotating_file_sink_st>(m_strPath, kMaxFileSize, kOlderFiles, false, handlers);
    // Lines arrive finished, with their time and their line end.
    file->set_formatter(
        std::make_unique<spdlog::pattern_formatter>("%v", spdlog::pattern_time_type::utc, std::string()));
    m_pFile = std::move(file);
}
