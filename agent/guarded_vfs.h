// guarded_vfs.h - opens the database and its journal only where they are what they have to be: regular files with one
// name, of root or of the effective user, reached through no link as their last part.
//
// A journal is opened again and again while the cache runs, by lookups too, and opening a pipe for reading would wait
// without end; so the look at the file belongs here and not to the start alone.
#ifndef TARN_AGENT_GUARDED_VFS_H
#define TARN_AGENT_GUARDED_VFS_H

#include "agent/forwarding_vfs.h"

class CGuardedVfs : public CForwardingVfs {
  protected:
    // A database that is missing is made with mode 0600. SQLITE_CANTOPEN (logged) for what must not be opened.
    int OpenFile(const char *pszPath, sqlite3_file *pFile, int iFlags, int *piOutFlags) override;
};

#endif
