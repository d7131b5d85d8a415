#include "support/temporary_file.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <sys/file.h>

namespace {

constexpr mode_t kModeBits = 07777;
constexpr char kUnique[] = "XXXXXX"; // letters and digits in a name
constexpr size_t kLongestName = NAME_MAX;
constexpr int kMaxTries = 16;

size_t FolderLength(const std::string &strPath) {
    return strPath.rfind('/') + 1; // npos + 1 is 0
}

// What temporary names for the file begin with.
std::string PrefixFor(const std::string &strTarget) {
    constexpr std::string_view kInfix = ".new.";
    const std::string strName = strTarget.substr(FolderLength(strTarget));
    return "." + strName.substr(0, kLongestName - 1 - kInfix.size() - (sizeof kUnique - 1)) + std::string(kInfix);
}

bool IsTemporaryName(std::string_view name, std::string_view prefix) {
    return name.size() == prefix.size() + sizeof kUnique - 1 && name.starts_with(prefix) &&
           std::all_of(name.begin() + static_cast<ptrdiff_t>(prefix.size()), name.end(), [](char ch) {
               return (ch >= '0' && ch <= '9') || (ch >= 'A' && ch <= 'Z') || (ch >= 'a' && ch <= 'z');
           });
}

// Without a lock that can be had, on some network file systems, nothing is removed.
void RemoveWithoutMaker(int fdFolder, const char *pszName) {
    const CDescriptor file = OpenForReading(fdFolder, pszName, ELastLink::Refuse);
    struct stat status = {};
    if (file.IsOpen() && fstat(file.Get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid() &&
        flock(file.Get(), LOCK_EX | LOCK_NB) == 0) {
        (void)unlinkat(fdFolder, pszName, 0); // the next save tries again
    }
}

} // namespace

CTemporaryFile::CTemporaryFile(const std::string &strTarget)
    : m_strTarget(strTarget), m_strPath(strTarget.substr(0, FolderLength(strTarget)) + PrefixFor(strTarget) + kUnique) {
    for (int iTry = 0; iTry < kMaxTries && !Make(); ++iTry) {
    }
}

CTemporaryFile::~CTemporaryFile() {
    if (m_bRemove) {
        const int iError = errno;
        (void)unlink(m_strPath.c_str()); // the failure that led here is the one to report
        errno = iError;
    }
}

// False when a sweep took the new file for a left-over, before it was locked.
bool CTemporaryFile::Make() noexcept {
    std::copy_n(kUnique, sizeof kUnique - 1, m_strPath.end() - (sizeof kUnique - 1));
    m_file = CDescriptor(mkostemp(m_strPath.data(), O_CLOEXEC));
    m_bRemove = m_file.IsOpen();
    if (!m_bRemove) {
        return true;
    }
    const bool bSwept = flock(m_file.Get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    struct stat status = {};
    if (bSwept || (fstat(m_file.Get(), &status) == 0 && status.st_nlink == 0)) {
        m_file = CDescriptor();
        m_bRemove = false;
        errno = EAGAIN;
        return false;
    }
    return true;
}

bool CTemporaryFile::SetOwnerAndMode(const struct stat &model) noexcept {
    struct stat own = {};
    if (fstat(m_file.Get(), &own) != 0) {
        return false;
    }
    // Owner first: changing it clears the set-id bits.
    const bool bSameOwner = own.st_uid == model.st_uid && own.st_gid == model.st_gid;
    return (bSameOwner || fchown(m_file.Get(), model.st_uid, model.st_gid) == 0) && SetMode(model.st_mode & kModeBits);
}

bool CTemporaryFile::Write(std::string_view text) noexcept {
    while (!text.empty()) {
        const ssize_t nWritten = write(m_file.Get(), text.data(), text.size());
        if (nWritten < 0 && errno != EINTR) {
            return false;
        }
        text.remove_prefix(nWritten > 0 ? static_cast<size_t>(nWritten) : 0);
    }
    return true;
}

bool CTemporaryFile::Replace() noexcept {
    m_bRemove = std::rename(m_strPath.c_str(), m_strTarget.c_str()) != 0;
    return !m_bRemove;
}

bool CTemporaryFile::PlaceUnlessThere() noexcept {
    // A rename would replace what another process has put there meanwhile.
    return link(m_strPath.c_str(), m_strTarget.c_str()) == 0 || errno == EEXIST;
}

void SweepTemporaryFiles(const std::string &strTarget) {
    const std::string strPrefix = PrefixFor(strTarget);
    const std::string strFolder = strTarget.substr(0, FolderLength(strTarget));
    const std::unique_ptr<DIR, int (*)(DIR *)> folder(opendir(strFolder.empty() ? "." : strFolder.c_str()), &closedir);
    if (folder == nullptr) {
        return;
    }
    while (const dirent *pEntry = readdir(folder.get())) {
        if (IsTemporaryName(pEntry->d_name, strPrefix)) {
            RemoveWithoutMaker(dirfd(folder.get()), pEntry->d_name);
        }
    }
}
