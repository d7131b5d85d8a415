#include "agent/checked_vfs.h"

#include "support/checked_file.h"
#include "util/log.h"

#include <cerrno>

namespace {

constexpr char kLogSource[] = "dbagent";
constexpr char kOpen[] = "OpenDB";
constexpr int kOursByName = SQLITE_OPEN_MAIN_DB | SQLITE_OPEN_MAIN_JOURNAL | SQLITE_OPEN_WAL;

// SQLite would make it for everybody to read. What fails here fails there too, with its reason.
void MakeFile(const char *pszPath) {
    const CDescriptor made(open(pszPath, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
}

} // namespace

int CCheckedVfs::OpenFile(const char *pszPath, sqlite3_file *pFile, int iFlags, int *piOutFlags) {
    if (pszPath != nullptr && (iFlags & kOursByName) != 0) {
        // By its name: closing a descriptor of the database would drop this process's locks on it.
        const _FileCheck check = CheckFile(pszPath, 0);
        const bool bIsStranger = check.eFault == EFileFault::SeveralNames || check.eFault == EFileFault::ForeignOwner;
        if (check.IsRefused() && (m_bStrict || !bIsStranger)) {
            if ((iFlags & SQLITE_OPEN_MAIN_DB) == 0) { // whoever opens the database says so himself
                TARN_LOG_AS(ELogLevel::Error, kOpen, "[%s][cache] %s is not opened: %s", pszPath, check.Text());
            }
            errno = check.iError; // SQLite asks for it
            return SQLITE_CANTOPEN;
        }
        if (check.eFault == EFileFault::Absent && (iFlags & SQLITE_OPEN_MAIN_DB) != 0 &&
            (iFlags & SQLITE_OPEN_CREATE) != 0) {
            MakeFile(pszPath);
        }
    }
    return m_pSystem->xOpen(m_pSystem, pszPath, pFile, iFlags, piOutFlags);
}
