// checked_vfs.h - opens the database and its journal only where they are what they have to be: regular files with one
// name, of root or of the effective user, reached through no link as their last part.
//
// A journal is opened again and again while the cache runs, by lookups too, and opening a pipe for reading would wait
// without end; so the look at the file belongs here and not to the start alone.
#ifndef TARN_AGENT_CHECKED_VFS_H
#define TARN_AGENT_CHECKED_VFS_H

#include "agent/forwarding_vfs.h"

class CCheckedVfs : public CForwardingVfs {
  public:
    // Other owners and names are refused from here on as well. A start that would then replace the file lets them be.
    void RefuseStrangers() { m_bStrict = true; }

  protected:
    // A database that is missing is made with mode 0600. SQLITE_CANTOPEN with errno for what must not be opened; a
    // journal of that kind is logged.
    int OpenFile(const char *pszPath, sqlite3_file *pFile, int iFlags, int *piOutFlags) override;

  private:
    bool m_bStrict = false;
};

#endif
