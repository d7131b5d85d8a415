// temporary_file.h - a file under a name of its own until it takes its place, and what kills have left of such files.
#ifndef TARN_SUPPORT_TEMPORARY_FILE_H
#define TARN_SUPPORT_TEMPORARY_FILE_H

#include "support/descriptor.h"

#include <string>
#include <string_view>
#include <sys/stat.h>

// "x.ini" is written as ".x.ini.new.ABCDEF" beside it. The lock on the file says that its maker lives. It is removed
// unless it took its place. The functions return false with errno set.
class CTemporaryFile {
  public:
    explicit CTemporaryFile(const std::string &strTarget); // throws only std::bad_alloc
    ~CTemporaryFile();
    CTemporaryFile(const CTemporaryFile &) = delete;
    CTemporaryFile &operator=(const CTemporaryFile &) = delete;

    [[nodiscard]] bool IsOpen() const noexcept { return m_file.IsOpen(); }
    // Those of a file that it is to replace.
    [[nodiscard]] bool SetOwnerAndMode(const struct stat &model) noexcept;
    [[nodiscard]] bool SetMode(mode_t mode) noexcept { return fchmod(m_file.Get(), mode) == 0; }
    [[nodiscard]] bool Write(std::string_view text) noexcept;
    [[nodiscard]] bool Flush() noexcept { return fsync(m_file.Get()) == 0; }
    [[nodiscard]] bool Replace() noexcept;
    // Whatever bears the name stays, and the call succeeds.
    [[nodiscard]] bool PlaceUnlessThere() noexcept;

  private:
    [[nodiscard]] bool Make() noexcept;

    std::string m_strTarget;
    std::string m_strPath;
    CDescriptor m_file;
    bool m_bRemove = false;
};

// Removes what saves of this file that were killed have left: regular files of the effective user, named as above,
// whose maker is gone. Throws only std::bad_alloc.
void SweepTemporaryFiles(const std::string &strTarget);

#endif
