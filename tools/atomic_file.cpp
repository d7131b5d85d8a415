#include "tools/atomic_file.h"

#include "tools/descriptor.h"
#include "tools/text.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sys/stat.h>

namespace {

// Removes the temporary file unless it was moved into place.
class CTemporaryName {
  public:
    explicit CTemporaryName(std::string strPath) : m_strPath(std::move(strPath)) {}
    CTemporaryName(const CTemporaryName &) = delete;
    CTemporaryName &operator=(const CTemporaryName &) = delete;
    ~CTemporaryName() {
        if (m_bThere)
            (void)unlink(m_strPath.c_str());
    }
    CDescriptor Create() {
        CDescriptor file(mkostemp(m_strPath.data(), O_CLOEXEC));
        m_bThere = file.IsOpen();
        return file;
    }
    const char *Get() const { return m_strPath.c_str(); }
    void Moved() { m_bThere = false; }

  private:
    std::string m_strPath;
    bool m_bThere = false;
};

bool WriteAll(int fd, std::string_view content) {
    while (!content.empty()) {
        const ssize_t written = write(fd, content.data(), content.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        content.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

bool SyncFolder(const std::string &strPath) {
    const std::string strFolder = strPath.substr(0, strPath.rfind('/') + 1);
    const CDescriptor folder(open(strFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder.IsOpen() && fsync(folder.Get()) == 0;
}

bool MoveIntoPlace(CTemporaryName &temporary, const std::string &strPath, EExisting eExisting) {
    if (eExisting == EExisting::Keep)
        return link(temporary.Get(), strPath.c_str()) == 0 || errno == EEXIST;
    if (rename(temporary.Get(), strPath.c_str()) != 0)
        return false;
    temporary.Moved();
    return true;
}

} // namespace

bool WriteFileAtomically(const std::string &strPath, std::string_view content, mode_t mode, EExisting eExisting,
                         std::string &strError) {
    CTemporaryName temporary(strPath + ".XXXXXX");
    const CDescriptor file = temporary.Create();
    const bool bDone = file.IsOpen() && WriteAll(file.Get(), content) && fchmod(file.Get(), mode) == 0 &&
                       fsync(file.Get()) == 0 && MoveIntoPlace(temporary, strPath, eExisting) && SyncFolder(strPath);
    if (!bDone)
        strError = "cannot write " + ErrnoText(strPath, errno);
    return bDone;
}

bool ReadWholeFile(const std::string &strPath, uint64_t uLimit, std::string &strContent, bool &bMissing,
                   std::string &strError) {
    strContent.clear();
    const CDescriptor file = OpenQuietly(AT_FDCWD, strPath.c_str(), 0);
    bMissing = !file.IsOpen() && errno == ENOENT;
    struct stat status {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) {
        strError = "cannot read " + ErrnoText(strPath, errno);
        return false;
    }
    if (!S_ISREG(status.st_mode) || static_cast<uint64_t>(status.st_size) > uLimit) {
        strError = EscapeName(strPath) + " is not a regular file or is too large";
        return false;
    }
    strContent.resize(static_cast<size_t>(status.st_size));
    for (size_t done = 0; done < strContent.size();) {
        const ssize_t count = read(file.Get(), strContent.data() + done, strContent.size() - done);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0) {
            strError = "cannot read " + ErrnoText(strPath, errno);
            return false;
        }
        if (count == 0)
            strContent.resize(done); // it shrank meanwhile
        done += static_cast<size_t>(count);
    }
    return true;
}
