// Ownership of file descriptors, and opening without leaving traces.
#ifndef TARN_TOOLS_DESCRIPTOR_H
#define TARN_TOOLS_DESCRIPTOR_H

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

class CDescriptor {
  public:
    CDescriptor() = default;
    explicit CDescriptor(int fd) : m_fd(fd) {}
    CDescriptor(CDescriptor &&other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    CDescriptor &operator=(CDescriptor &&other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    ~CDescriptor() {
        if (m_fd >= 0)
            (void)close(m_fd);
    }
    int Get() const { return m_fd; }
    bool IsOpen() const { return m_fd >= 0; }
    int Release() { return std::exchange(m_fd, -1); }

  private:
    int m_fd = -1;
};

// Opens for reading without following a last link, without waiting on a pipe or a device, and without changing the
// access time where the system allows that (it refuses for files of other users with EPERM).
inline CDescriptor OpenQuietly(int folderFd, const char *pszName, int extraFlags) {
    const int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | extraFlags;
    int fd = openat(folderFd, pszName, flags | O_NOATIME);
    if (fd < 0 && errno == EPERM)
        fd = openat(folderFd, pszName, flags);
    return CDescriptor(fd);
}

#endif
