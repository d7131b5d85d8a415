// descriptor.h - the owner of one file descriptor, and opening files that strangers may have made.
#ifndef TARN_SUPPORT_DESCRIPTOR_H
#define TARN_SUPPORT_DESCRIPTOR_H

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

// Closes its descriptor when it goes, leaving errno alone.
class CDescriptor {
  public:
    CDescriptor() = default;
    explicit CDescriptor(int fd) noexcept : m_fd(fd) {}
    CDescriptor(CDescriptor &&other) noexcept : m_fd(other.Release()) {}
    CDescriptor &operator=(CDescriptor &&other) noexcept {
        CDescriptor taken(std::move(other));
        std::swap(m_fd, taken.m_fd);
        return *this;
    }
    CDescriptor(const CDescriptor &) = delete;
    CDescriptor &operator=(const CDescriptor &) = delete;
    ~CDescriptor() {
        const int iError = errno;
        (void)Close(); // who wants to know calls it himself
        errno = iError;
    }

    [[nodiscard]] int Get() const noexcept { return m_fd; }
    [[nodiscard]] bool IsOpen() const noexcept { return m_fd >= 0; }
    // Leaves the closing to the caller.
    [[nodiscard]] int Release() noexcept { return std::exchange(m_fd, -1); }
    // Returns what close() does: a file system may report a lost write only here.
    [[nodiscard]] int Close() noexcept {
        const int fd = Release();
        return fd < 0 ? 0 : ::close(fd);
    }

  private:
    int m_fd = -1;
};

// Whether a symbolic link as the last part of a path is followed or refused (ELOOP).
enum class ELastLink { Follow, Refuse };

// Opens for reading without waiting on a pipe or a device, without taking a terminal, and without changing the access
// time where the system allows that. The name counts from the folder, which may be AT_FDCWD. Not open on failure, with
// errno set.
[[nodiscard]] CDescriptor OpenForReading(int fdFolder, const char *pszName, ELastLink eLastLink,
                                         int iExtraFlags = 0) noexcept;

#endif
