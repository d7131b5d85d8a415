#include "support/whole_file.h"

#include "support/call_guard.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sys/stat.h>

namespace {

constexpr mode_t kModeBits = 07777;

struct _Target {
    std::string strPath;
    bool bExists = false;
    struct stat status = {};
};

std::string FolderOf(const std::string &strPath) {
    const size_t nSlash = strPath.rfind('/');
    return nSlash == std::string::npos ? "." : nSlash == 0 ? "/" : strPath.substr(0, nSlash);
}

// Finds the file that a replacement is to replace, following a link: renaming onto the link would replace the link.
int FindTarget(const char *pszPath, _Target &target) {
    const std::unique_ptr<char, decltype(&std::free)> pResolved(realpath(pszPath, nullptr), &std::free);
    if (pResolved != nullptr) {
        target.strPath = pResolved.get();
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
    if (errno != ENOENT || lstat(pszPath, &link) == 0) { // a link whose target is missing is not turned into a file
        return errno;
    }
    target.strPath = pszPath;
    return 0;
}

// The new file while it has a temporary name. It is removed unless it took the target's place. The functions return
// false with errno set.
class CTemporaryFile {
  public:
    explicit CTemporaryFile(const std::string &strFolder)
        : m_strPath(strFolder + "/.new.XXXXXX"), m_file(mkostemp(m_strPath.data(), O_CLOEXEC)) {
        m_bRemove = m_file.IsOpen();
    }
    ~CTemporaryFile() {
        if (m_bRemove) {
            const int iError = errno;
            (void)unlink(m_strPath.c_str()); // the failure that led here is the one to report
            errno = iError;
        }
    }
    CTemporaryFile(const CTemporaryFile &) = delete;
    CTemporaryFile &operator=(const CTemporaryFile &) = delete;

    [[nodiscard]] bool IsOpen() const noexcept { return m_file.IsOpen(); }

    [[nodiscard]] bool SetOwnerAndMode(const _Target &target, mode_t newMode) noexcept {
        if (!target.bExists) {
            return fchmod(m_file.Get(), newMode) == 0;
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
    [[nodiscard]] bool MoveTo(const std::string &strTarget, EExisting eExisting) noexcept {
        if (eExisting == EExisting::Keep) { // a rename would replace what another process has put there meanwhile
            return link(m_strPath.c_str(), strTarget.c_str()) == 0 || errno == EEXIST;
        }
        m_bRemove = std::rename(m_strPath.c_str(), strTarget.c_str()) != 0;
        return !m_bRemove;
    }

  private:
    std::string m_strPath;
    CDescriptor m_file;
    bool m_bRemove = false;
};

} // namespace

int LoadWholeFile(const CDescriptor &file, size_t nLimit, std::string &strText) {
    strText.clear();
    struct stat status = {};
    if (fstat(file.Get(), &status) != 0) {
        return errno;
    }
    if (!S_ISREG(status.st_mode)) {
        return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    }
    if (static_cast<size_t>(status.st_size) > nLimit) {
        return EFBIG;
    }
    strText.reserve(static_cast<size_t>(status.st_size));
    char szBlock[16384];
    for (;;) {
        const ssize_t nRead = read(file.Get(), szBlock, sizeof szBlock);
        if (nRead == 0) {
            return 0;
        }
        if (nRead < 0 && errno == EINTR) {
            continue;
        }
        if (nRead < 0 || strText.size() + static_cast<size_t>(nRead) > nLimit) { // it may have grown meanwhile
            const int iError = nRead < 0 ? errno : EFBIG;
            strText.clear();
            return iError;
        }
        strText.append(szBlock, static_cast<size_t>(nRead));
    }
}

int LoadWholeFile(const char *pszPath, ELastLink eLastLink, size_t nLimit, std::string &strText) {
    strText.clear();
    const CDescriptor file = OpenForReading(AT_FDCWD, pszPath, eLastLink);
    return file.IsOpen() ? LoadWholeFile(file, nLimit, strText) : errno;
}

int SaveWholeFile(const char *pszPath, std::string_view text, mode_t newMode, EExisting eExisting) {
    _Target target = {};
    target.strPath = pszPath;
    const int iError = eExisting == EExisting::Keep ? 0 : FindTarget(pszPath, target);
    if (iError != 0) {
        return iError;
    }
    const std::string strFolder = FolderOf(target.strPath);
    const CDescriptor folder(open(strFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder.IsOpen()) {
        return errno;
    }
    {
        const CWriteSignalGuard noWriteSignals;
        CTemporaryFile file(strFolder);
        if (!file.IsOpen() || !file.SetOwnerAndMode(target, newMode) || !file.Write(text) || !file.FlushAndClose() ||
            !file.MoveTo(target.strPath, eExisting)) {
            return errno;
        }
    }
    // The folder too, else a crash could bring the old name back. EINVAL: a file system that flushes no folders.
    return fsync(folder.Get()) == 0 || errno == EINVAL ? 0 : errno;
}
