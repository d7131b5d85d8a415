#include "tables/guarded_vfs.h"

#include "support/call_guard.h"

#include <memory>
#include <mutex>
#include <new>
#include <sqlite3.h>

namespace {

constexpr char kName[] = "tarncache";

// What SQLite takes for its file is only the methods below; the real file stands behind it.
sqlite3_file *Real(sqlite3_file *pFile) {
    return pFile + 1;
}
sqlite3_vfs *Real(sqlite3_vfs *pVfs) {
    return static_cast<sqlite3_vfs *>(pVfs->pAppData);
}

// The function that passes a method of a file, or of the access, on to the real one.
template <auto pMethod> struct _Pass;
template <typename Result, typename... Args, Result (*sqlite3_io_methods::*pMethod)(sqlite3_file *, Args...)>
struct _Pass<pMethod> {
    static Result On(sqlite3_file *pFile, Args... args) {
        return (Real(pFile)->pMethods->*pMethod)(Real(pFile), args...);
    }
    static Result Guarded(sqlite3_file *pFile, Args... args) {
        const CWriteSignalGuard noWriteSignals;
        return On(pFile, args...);
    }
};
template <typename Result, typename... Args, Result (*sqlite3_vfs::*pMethod)(sqlite3_vfs *, Args...)>
struct _Pass<pMethod> {
    static Result On(sqlite3_vfs *pVfs, Args... args) { return (Real(pVfs)->*pMethod)(Real(pVfs), args...); }
};

constexpr sqlite3_io_methods Methods(int iVersion) {
    using M = sqlite3_io_methods;
    return {iVersion,
            _Pass<&M::xClose>::On,
            _Pass<&M::xRead>::On,
            _Pass<&M::xWrite>::Guarded,
            _Pass<&M::xTruncate>::Guarded,
            _Pass<&M::xSync>::On,
            _Pass<&M::xFileSize>::On,
            _Pass<&M::xLock>::On,
            _Pass<&M::xUnlock>::On,
            _Pass<&M::xCheckReservedLock>::On,
            _Pass<&M::xFileControl>::On,
            _Pass<&M::xSectorSize>::On,
            _Pass<&M::xDeviceCharacteristics>::On,
            _Pass<&M::xShmMap>::Guarded,
            _Pass<&M::xShmLock>::On,
            _Pass<&M::xShmBarrier>::On,
            _Pass<&M::xShmUnmap>::On,
            nullptr,
            nullptr};
}
constexpr sqlite3_io_methods kFirstMethods = Methods(1);
constexpr sqlite3_io_methods kShmMethods = Methods(2);

int Open(sqlite3_vfs *pVfs, const char *pszName, sqlite3_file *pFile, int iFlags, int *piOutFlags) {
    sqlite3_file *const pReal = Real(pFile);
    pReal->pMethods = nullptr; // as it stays when the opening fails early
    const int iResult = Real(pVfs)->xOpen(Real(pVfs), pszName, pReal, iFlags, piOutFlags);
    // SQLite closes a file that has methods, after a failure too.
    pFile->pMethods = pReal->pMethods == nullptr      ? nullptr
                      : pReal->pMethods->iVersion > 1 ? &kShmMethods
                                                      : &kFirstMethods;
    return iResult;
}

sqlite3_vfs InFrontOf(sqlite3_vfs *pReal) {
    using V = sqlite3_vfs;
    V vfs = {};
    vfs.iVersion = pReal->iVersion > 1 ? 2 : 1;
    vfs.szOsFile = static_cast<int>(sizeof(sqlite3_file)) + pReal->szOsFile;
    vfs.mxPathname = pReal->mxPathname;
    vfs.zName = kName;
    vfs.pAppData = pReal;
    vfs.xOpen = Open;
    vfs.xDelete = _Pass<&V::xDelete>::On;
    vfs.xAccess = _Pass<&V::xAccess>::On;
    vfs.xFullPathname = _Pass<&V::xFullPathname>::On;
    vfs.xDlOpen = _Pass<&V::xDlOpen>::On;
    vfs.xDlError = _Pass<&V::xDlError>::On;
    vfs.xDlSym = _Pass<&V::xDlSym>::On;
    vfs.xDlClose = _Pass<&V::xDlClose>::On;
    vfs.xRandomness = _Pass<&V::xRandomness>::On;
    vfs.xSleep = _Pass<&V::xSleep>::On;
    vfs.xCurrentTime = _Pass<&V::xCurrentTime>::On;
    vfs.xGetLastError = pReal->xGetLastError != nullptr ? _Pass<&V::xGetLastError>::On : nullptr;
    vfs.xCurrentTimeInt64 =
        vfs.iVersion > 1 && pReal->xCurrentTimeInt64 != nullptr ? _Pass<&V::xCurrentTimeInt64>::On : nullptr;
    return vfs;
}

} // namespace

const char *GuardedVfsName() {
    static std::mutex s_mutex;
    static sqlite3_vfs *s_pVfs =
        nullptr; // the one registered last; none is ever freed, because files may be open on it
    const std::lock_guard<std::mutex> guard(s_mutex);
    sqlite3_vfs *const pReal = sqlite3_vfs_find(nullptr);
    if (s_pVfs == nullptr || s_pVfs->pAppData != pReal) {
        std::unique_ptr<sqlite3_vfs> pVfs(pReal != nullptr ? new (std::nothrow) sqlite3_vfs(InFrontOf(pReal))
                                                           : nullptr);
        // Of two with one name SQLite finds the later.
        if (pVfs == nullptr || sqlite3_vfs_register(pVfs.get(), 0) != SQLITE_OK) {
            return nullptr;
        }
        s_pVfs = pVfs.release();
    }
    return kName;
}
