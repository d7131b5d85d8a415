// guarded_vfs.h - opens the database and its journal only where they are what they have to be: regular files with one
// name, of root or of the effective user, reached through no link as their last part.
//
// A journal is opened again and again while the cache runs, by lookups too, and opening a pipe for reading would wait
// without end; so the look at the file belongs here and not to the start alone.
#ifndef TARN_AGENT_GUARDED_VFS_H
#define TARN_AGENT_GUARDED_VFS_H

#include "agent/forwarding_vfs.h"

class CGuardedVfs : public CForwardingVfs {
  public:
    // Why the database itself was not opened; null: that is not the reason. Who opened it says so.
    [[nodiscard]] const char *Refusal() const { return m_pszRefused; }

  protected:
    // A database that is missing is made with mode 0600. SQLITE_CANTOPEN for what must not be opened; logged for a
    // journal.
    int OpenFile(const char *pszPath, sqlite3_file *pFile, int iFlags, int *piOutFlags) override;

  private:
    const char *m_pszRefused = nullptr; // set by the first opening alone
};

#endif
