// guarded_vfs.h - SQLite's access to files, except that a refused write raises no signal.
//
// Every statement may write, a lookup too: the one that finds the journal of an unfinished transaction rolls it back.
// So the guard stands around the writes themselves, for every thread, and costs those who only read nothing.
#ifndef TARN_TABLES_GUARDED_VFS_H
#define TARN_TABLES_GUARDED_VFS_H

// The name under which sqlite3_open_v2 finds it, in front of what is SQLite's default now. Registered by the first call
// and for the rest of the process, never as the default. Null, which means the default: no memory is left.
[[nodiscard]] const char *GuardedVfsName();

#endif
