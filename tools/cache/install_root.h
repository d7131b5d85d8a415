// Where the cache of this machine lives, and setting that place up on first use.
#ifndef TARN_TOOLS_CACHE_INSTALL_ROOT_H
#define TARN_TOOLS_CACHE_INSTALL_ROOT_H

#include "formats/installation.h"

#include <string>

// The installation folder. One rule, first match wins:
//   1. --root DIR;
//   2. the parent of TARN_INSTALL_DIR, when that is set;
//   3. the program's own prefix, when it holds config/tarncfg.ini and this user may write there;
//   4. /var/lib/tarncache for root, ${XDG_DATA_HOME:-~/.local/share}/tarncache for everybody else.
class CInstallRoot {
  public:
    explicit CInstallRoot(const std::string &strOption);

    // Tells the library where it is, through the program's own environment. Call it before any thread is started and
    // before the first call into the library.
    void ExportToLibrary() const;

    // Makes the folders, the configuration and the key that are missing; never changes one that is there. False when
    // that fails or when somebody else could change what lies there, with the reason in strError.
    bool Prepare(std::string &strError) const;

    // True once Prepare has run here.
    bool IsSetUp() const;

    const std::string &Path() const { return m_strPath; }
    std::string Below(const char *pszRelative) const { return m_strPath + "/" + pszRelative; }
    std::string CacheFolder() const { return Below(kCacheFolder); }
    std::string EngineMarker() const { return Below(FromRoot(kEngineMarkerPath)); }
    std::string HashMarker() const { return Below(FromRoot(kHashMarkerPath)); }
    std::string WithdrawnList() const { return Below(FromRoot(kUpdateCachePath)); }

    // True when digests wait to be withdrawn, or this has not been carried out yet. A marker without its list is never
    // consumed, so it does not count.
    bool IsListPending() const;
    // The same of the engine's verdicts.
    bool IsEnginePending() const;

    std::string SignatureId() const { return Below(kSignatureIdFile); }
    std::string ScanLock() const { return Below(kScanLockFile); }
    std::string UpdateLock() const { return Below(kUpdateLockFile); }
    std::string ConfigFile() const { return Below(FromRoot(kConfigPath)); }
    std::string KeyFile() const { return Below(FromRoot(kBusinessValuesPath)); }

  private:
    std::string m_strPath;
    bool m_bFromEnvironment = false;
};

// The folder two levels above the running program ("P" for P/bin/tarncache); empty when it cannot be told.
std::string ProgramPrefix();

// True when something of that name exists, a dangling link included.
bool Exists(const std::string &strPath);

#endif
