// lookup_rivals.h - what a scanner would use instead of the cache. Each takes the file's status first, as the cache
// does, and answers whether the file is known and unchanged.
#ifndef TARN_BENCH_LOOKUP_RIVALS_H
#define TARN_BENCH_LOOKUP_RIVALS_H

#include "bench/bench_install.h"

#include <lmdb.h>
#include <memory>
#include <sqlite3.h>
#include <string>
#include <unordered_map>
#include <vector>

// What a rival stores for a path.
struct _RivalEntry {
    int64_t liSize;       // bytes
    int64_t liChangeTime; // seconds
    CacheMD5 md5;
    int64_t liTreatVirus;
};

// A SQLite table keyed by the path text; one thread.
class CPlainSqlite {
  public:
    CPlainSqlite(const std::string &strPath, int64_t liRows, const std::vector<std::string> &vecFiles);
    CPlainSqlite(const CPlainSqlite &) = delete;
    CPlainSqlite &operator=(const CPlainSqlite &) = delete;
    ~CPlainSqlite();
    bool LookUpPreparing(const std::string &strFile); // a statement for each lookup
    bool LookUpKept(const std::string &strFile);      // one statement, kept

  private:
    sqlite3_stmt *Prepare() const;
    static bool Ask(sqlite3_stmt *pStmt, const std::string &strFile);

    sqlite3 *m_pDB = nullptr;
    sqlite3_stmt *m_pKept = nullptr;
};

// A memory-mapped B+ tree keyed by the path; one thread.
class CLmdbStore {
  public:
    CLmdbStore(const std::string &strPath, int64_t liRows, const std::vector<std::string> &vecFiles);
    CLmdbStore(const CLmdbStore &) = delete;
    CLmdbStore &operator=(const CLmdbStore &) = delete;
    ~CLmdbStore();
    bool LookUp(const std::string &strFile);

  private:
    MDB_env *m_pEnv = nullptr;
    MDB_dbi m_dbi = 0;
    MDB_txn *m_pReader = nullptr; // renewed for each lookup
};

// What existing scanners do: read the whole file, take its MD5, look that up in memory.
class CRehashMap {
  public:
    explicit CRehashMap(const std::vector<std::string> &vecFiles);
    bool LookUp(const std::string &strFile) const;

  private:
    std::unordered_map<std::string, int64_t> m_mapVerdicts; // MD5 -> packed verdict
};

#endif
