// log_output.h - where log lines go: a rotating file while one is configured and works, else standard error.
#ifndef TARN_PLATFORM_BUNDLED_LOG_OUTPUT_H
#define TARN_PLATFORM_BUNDLED_LOG_OUTPUT_H

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

namespace spdlog::sinks {
class sink;
}

// Not locked: the logger's mutex guards every call. A file that cannot be opened or written is closed, reported on
// standard error and tried again a minute later.
class CLogFile {
  public:
    CLogFile();
    ~CLogFile();
    CLogFile(const CLogFile &) = delete;
    CLogFile &operator=(const CLogFile &) = delete;

    // An absolute path, or empty for none. The file is opened by the first line.
    void SetPath(std::string strPath);
    // Writes a whole line, line end included. Returns what is left for standard error: nothing when the file took it.
    [[nodiscard]] std::string Write(std::string strLine);
    void Close() noexcept;

  private:
    void Open();

    std::string m_strPath;
    std::unique_ptr<spdlog::sinks::sink> m_pFile; // null while not open
    std::chrono::steady_clock::time_point m_nextTry = {};
};

// Straight to the descriptor: the host's stream keeps its state, and nothing is buffered across a fork. Takes no lock,
// so that a full pipe stops this thread and no other.
void WriteToStandardError(std::string_view text) noexcept;

#endif
