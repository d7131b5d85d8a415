// log_output.h - the log file: private, rotating, and never opened twice by name.
#ifndef TARN_PLATFORM_BUNDLED_LOG_OUTPUT_H
#define TARN_PLATFORM_BUNDLED_LOG_OUTPUT_H

#include "support/descriptor.h"

#include <chrono>
#include <string>
#include <string_view>

// Not locked: the logger's mutex guards every call. A file that cannot be opened, renamed or written is closed,
// reported on standard error and tried again a minute later.
class CLogFile {
  public:
    // An absolute path, or empty for none. The file is opened by the first line.
    void SetPath(const std::string &strPath);
    // Writes whole lines, line end included. Returns what is left for standard error: nothing when the file took them.
    [[nodiscard]] std::string Write(std::string strLines);

  private:
    // These return what went wrong, null when nothing did.
    [[nodiscard]] const char *TryWrite(std::string_view lines);
    [[nodiscard]] const char *Open();
    [[nodiscard]] const char *MakeRoom(size_t nSize);
    [[nodiscard]] const char *Append(std::string_view text) noexcept;
    [[nodiscard]] std::string NameOf(size_t nOlder) const;

    std::string m_strFolder;
    std::string m_strName; // empty: no file
    CDescriptor m_folder;  // all names count from it
    CDescriptor m_file;
    bool m_bFolderChecked = false;
    bool m_bTorn = false; // the last line was taken in part only
    std::chrono::steady_clock::time_point m_nextTry = {};
};

#endif
