#include "platform/nubbase_replace.h"

#include "platform/call_guard.h"
#include "platform/file_descriptor.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/stat.h>

namespace {

constexpr mode_t kModeBits = 07777;
constexpr mode_t kNewFileMode = 0600;

struct _Target {
    std::string strPath; // no link in its last part
    bool bExists = false;
    struct stat status = {};
};

std::string FolderOf(const std::string &strPath) {
    const size_t nSlash = strPath.rfind('/');
    return nSlash == std::string::npos ? "." : nSlash == 0 ? "/" : strPath.substr(0, nSlash);
}

int FindTarget(const char *path, _Target &target) {
    const std::unique_ptr<char, decltype(&free)> resolved(realpath(path, nullptr), &free);
    if (resolved != nullptr) {
        target.strPath = resolved.get();
        target.bExists = true;
        if (stat(target.strPath.c_str(), &target.status) != 0) {
            return errno;
        }
        if (S_ISDIR(target.status.st_mode)) {
            return EISDIR;
        }
        return S_ISREG(target.status.st_mode) ? 0 : EINVAL;
    }
    struct stat link = {};
    if (errno != ENOENT || lstat(path, &link) == 0) { // a link whose target is missing is not turned into a file
        return errno;
    }
    target.strPath = path;
    return 0;
}

// The new file under its passing name; removed unless it took the target's place.
class CTemporaryFile {
  public:
    explicit CTemporaryFile(const std::string &strFolder)
        : m_strPath(strFolder + "/.tarnini.XXXXXX"), m_file(mkostemp(m_strPath.data(), O_CLOEXEC)) {
        m_bRemove = m_file.IsOpen();
    }
    ~CTemporaryFile() {
        if (m_bRemove) {
            const int nError = errno;
            (void)unlink(m_strPath.c_str());
            errno = nError;
        }
    }
    CTemporaryFile(const CTemporaryFile &) = delete;
    CTemporaryFile &operator=(const CTemporaryFile &) = delete;

    [[nodiscard]] bool IsOpen() const noexcept { return m_file.IsOpen(); }

    // These return false with errno set.
    [[nodiscard]] bool TakeOwnerAndMode(const _Target &target) noexcept {
        if (!target.bExists) {
            return fchmod(m_file.Get(), kNewFileMode) == 0;
        }
        struct stat own = {};
        if (fstat(m_file.Get(), &own) != 0) {
            return false;
        }
        // Owner first: changing it clears the set-id bits.
        const bool bSameOwner = own.st_uid == target.status.st_uid && own.st_gid == target.status.st_gid;
        return (bSameOwner || fchown(m_file.Get(), target.status.st_uid, target.status.st_gid) == 0) &&
               fchmod(m_file.Get(), target.status.st_mode & kModeBits) == 0;
    }
    [[nodiscard]] bool Write(std::string_view text) noexcept {
        while (!text.empty()) {
            const ssize_t nWritten = write(m_file.Get(), text.data(), text.size());
            if (nWritten < 0 && errno != EINTR) {
                return false;
            }
            text.remove_prefix(nWritten > 0 ? static_cast<size_t>(nWritten) : 0);
        }
        return true;
    }
    [[nodiscard]] bool FlushAndClose() noexcept { return fsync(m_file.Get()) == 0 && m_file.Close() == 0; }
    [[nodiscard]] bool RenameTo(const std::string &strTarget) noexcept {
        m_bRemove = rename(m_strPath.c_str(), strTarget.c_str()) != 0;
        return !m_bRemove;
    }

  private:
    std::string m_strPath;
    CFileDescriptor m_file;
    bool m_bRemove = false;
};

} // namespace

int ReplaceFile(const char *path, std::string_view text) {
    _Target target;
    const int nError = FindTarget(path, target);
    if (nError != 0) {
        return nError;
    }
    const std::string strFolder = FolderOf(target.strPath);
    const CWriteSignalGuard noWriteSignals;
    CTemporaryFile file(strFolder);
    if (!file.IsOpen() || !file.TakeOwnerAndMode(target) || !file.Write(text) || !file.FlushAndClose() ||
        !file.RenameTo(target.strPath)) {
        return errno;
    }
    // The new text is in place whatever comes of this; it only hardens the rename against a power cut.
    const CFileDescriptor folder(open(strFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.IsOpen()) {
        (void)fsync(folder.Get());
    }
    return 0;
}
