// file_descriptor.h - the owner of one file descriptor.
#ifndef TARN_PLATFORM_FILE_DESCRIPTOR_H
#define TARN_PLATFORM_FILE_DESCRIPTOR_H

#include <cerrno>
#include <unistd.h>

// Closes its descriptor when it goes, leaving errno alone.
class CFileDescriptor {
  public:
    explicit CFileDescriptor(int fd) noexcept : m_fd(fd) {}
    ~CFileDescriptor() {
        const int nError = errno;
        (void)Close();
        errno = nError;
    }
    CFileDescriptor(const CFileDescriptor &) = delete;
    CFileDescriptor &operator=(const CFileDescriptor &) = delete;

    [[nodiscard]] bool IsOpen() const noexcept { return m_fd >= 0; }
    [[nodiscard]] int Get() const noexcept { return m_fd; }

    // Returns what close() does: a file system may report a lost write only here.
    int Close() noexcept {
        const int fd = m_fd;
        m_fd = -1;
        return fd < 0 ? 0 : ::close(fd);
    }

  private:
    int m_fd;
};

#endif
