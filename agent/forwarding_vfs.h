// forwarding_vfs.h - a layer of ours between SQLite and its access to files, for our own connections alone. It passes
// every call on but the opening of files.
#ifndef TARN_AGENT_FORWARDING_VFS_H
#define TARN_AGENT_FORWARDING_VFS_H

#include <sqlite3.h>
#include <string>

// Start-up, shut-down and the writer thread; SQLite calls it back on any thread.
class CForwardingVfs {
  public:
    CForwardingVfs() = default;
    CForwardingVfs(const CForwardingVfs &) = delete;
    CForwardingVfs &operator=(const CForwardingVfs &) = delete;
    virtual ~CForwardingVfs() { Withdraw(); } // the connections that were opened through it must be closed

    // As sqlite3_open_v2. One connection at a time.
    [[nodiscard]] int OpenConnection(const std::string &strPath, int iFlags, sqlite3 **ppDB);
    // SQLite knows the layer by its name while the connection lives (a vacuum asks for it). Call after closing.
    void Withdraw();

  protected:
    // As sqlite3_vfs::xOpen; the record behind pFile has FileSize bytes.
    virtual int OpenFile(const char *pszPath, sqlite3_file *pFile, int iFlags, int *piOutFlags) = 0;
    virtual int FileSize() const { return m_pSystem->szOsFile; }

    sqlite3_vfs *m_pSystem = nullptr; // what the host's SQLite uses; set before a file is opened

  private:
    static CForwardingVfs &Of(sqlite3_vfs *pVfs) { return *static_cast<CForwardingVfs *>(pVfs->pAppData); }
    template <auto pMethod, typename Result, typename... Args> static Result Forward(sqlite3_vfs *pVfs, Args... args) {
        sqlite3_vfs *const pSystem = Of(pVfs).m_pSystem;
        return (pSystem->*pMethod)(pSystem, args...);
    }
    static int Open(sqlite3_vfs *pVfs, const char *pszPath, sqlite3_file *pFile, int iFlags, int *piOutFlags);
    static int FullPath(sqlite3_vfs *pVfs, const char *pszPath, int nOut, char *pszOut);
    void Fill();

    sqlite3_vfs m_vfs = {};
    std::string m_strName;
};

#endif
