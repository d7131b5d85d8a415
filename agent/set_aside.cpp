#include "agent/set_aside.h"

#include "support/checked_file.h"

#include <cerrno>
#include <cstdio>

namespace {

constexpr char kDamaged[] = ".damaged";
constexpr char kJournal[] = "-journal";

bool IsDone(int iResult) {
    return iResult == 0 || errno == ENOENT;
}

// The order of renames must reach the disk as it is. EINVAL: a file system that flushes no folders.
bool FlushFolder(const std::string &strPath) {
    const std::string strFolder = strPath.substr(0, strPath.rfind('/') + 1);
    const CDescriptor folder(open(strFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder.IsOpen() && (fsync(folder.Get()) == 0 || errno == EINVAL);
}

bool MoveAside(const std::string &strPath) {
    const std::string strJournal = strPath + kJournal;
    const std::string strAside = strPath + kDamaged;
    const std::string strAsideJournal = strAside + kJournal;
    struct stat status = {};
    const bool bEarlier = lstat(strAside.c_str(), &status) == 0;
    // 1. The earlier damaged database goes, its journal first: one without the other must not be taken for a pair. A
    //    journal there without a database is what step 2 left behind when it was killed, and belongs to ours.
    if (bEarlier && (!IsDone(unlink(strAsideJournal.c_str())) || !IsDone(unlink(strAside.c_str())))) {
        return false;
    }
    // 2. Our journal goes first, and for good: beside a new database it would be rolled back into that. Killed here,
    // the
    //    database is still in place and still damaged.
    if (!IsDone(std::rename(strJournal.c_str(), strAsideJournal.c_str())) || !FlushFolder(strPath)) {
        return false;
    }
    // 3. Killed after this, the next start finds nothing and makes an empty one.
    return std::rename(strPath.c_str(), strAside.c_str()) == 0 && FlushFolder(strPath);
}

} // namespace

int SetDatabaseAside(const std::string &strPath) {
    errno = 0;
    if (MoveAside(strPath)) {
        return 0;
    }
    return errno != 0 ? errno : EIO;
}
