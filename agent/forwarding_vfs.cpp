#include "agent/forwarding_vfs.h"

#include "tables/guarded_vfs.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

int CForwardingVfs::OpenConnection(const std::string &strPath, int iFlags, sqlite3 **ppDB) {
    Withdraw();
    m_pSystem = sqlite3_vfs_find(GuardedVfsName());
    if (m_pSystem == nullptr) {
        return SQLITE_ERROR;
    }
    m_strName = "tarncache-" + std::to_string(reinterpret_cast<uintptr_t>(this)); // hosts may have layers of their own
    Fill();
    if (const int iResult = sqlite3_vfs_register(&m_vfs, 0); iResult != SQLITE_OK) {
        return iResult;
    }
    return sqlite3_open_v2(strPath.c_str(), ppDB, iFlags, m_strName.c_str());
}

void CForwardingVfs::Withdraw() {
    if (m_vfs.zName != nullptr) {
        (void)sqlite3_vfs_unregister(&m_vfs); // of one that is not there it does nothing
        m_vfs = {};
    }
}

void CForwardingVfs::Fill() {
    m_vfs.iVersion = std::min(m_pSystem->iVersion, 2); // without the table of system calls: it is the whole process's
    m_vfs.szOsFile = FileSize();
    m_vfs.mxPathname = m_pSystem->mxPathname;
    m_vfs.zName = m_strName.c_str();
    m_vfs.pAppData = this;
    m_vfs.xOpen = Open;
    m_vfs.xDelete = Forward<&sqlite3_vfs::xDelete>;
    m_vfs.xAccess = Forward<&sqlite3_vfs::xAccess>;
    m_vfs.xFullPathname = FullPath;
    m_vfs.xDlOpen = Forward<&sqlite3_vfs::xDlOpen>;
    m_vfs.xDlError = Forward<&sqlite3_vfs::xDlError>;
    m_vfs.xDlSym = nullptr; // extensions are never loaded
    m_vfs.xDlClose = Forward<&sqlite3_vfs::xDlClose>;
    m_vfs.xRandomness = Forward<&sqlite3_vfs::xRandomness>;
    m_vfs.xSleep = Forward<&sqlite3_vfs::xSleep>;
    m_vfs.xCurrentTime = Forward<&sqlite3_vfs::xCurrentTime>;
    if (m_pSystem->xGetLastError != nullptr) { // a host's own layer may lack it, and the next
        m_vfs.xGetLastError = Forward<&sqlite3_vfs::xGetLastError>;
    }
    if (m_vfs.iVersion > 1 && m_pSystem->xCurrentTimeInt64 != nullptr) {
        m_vfs.xCurrentTimeInt64 = Forward<&sqlite3_vfs::xCurrentTimeInt64>;
    }
}

int CForwardingVfs::Open(sqlite3_vfs *pVfs, const char *pszPath, sqlite3_file *pFile, int iFlags, int *piOutFlags) {
    pFile->pMethods = nullptr; // nothing to close after a failure
    return Of(pVfs).OpenFile(pszPath, pFile, iFlags, piOutFlags);
}

// An absolute path stays as it is. SQLite's own way resolves links, and what is opened then is never a link.
int CForwardingVfs::FullPath(sqlite3_vfs *pVfs, const char *pszPath, int nOut, char *pszOut) {
    if (*pszPath != '/') {
        return Forward<&sqlite3_vfs::xFullPathname, int>(pVfs, pszPath, nOut, pszOut);
    }
    const size_t nLength = std::strlen(pszPath);
    if (nOut <= 0 || nLength >= static_cast<size_t>(nOut)) {
        return SQLITE_CANTOPEN;
    }
    std::memcpy(pszOut, pszPath, nLength + 1);
    return SQLITE_OK;
}
