#include "bench/lookup_rivals.h"

#include <array>
#include <cstring>
#include <fcntl.h>
#include <nettle/md5.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t kMapBytes = size_t{2} << 30U;

bool ReadEntry(const std::string &strFile, _RivalEntry &entry) {
    struct stat status = {};
    if (lstat(strFile.c_str(), &status) != 0) {
        return false;
    }
    entry.liSize = status.st_size;
    entry.liChangeTime = status.st_ctim.tv_sec;
    return true;
}

bool IsUnchanged(const _RivalEntry &stored, const _RivalEntry &now) {
    return stored.liSize == now.liSize && stored.liChangeTime == now.liChangeTime;
}

// Calls store(path, entry) for every file and for as many made-up paths as make liRows in all.
template <typename Store> void ForEachEntry(int64_t liRows, const std::vector<std::string> &vecFiles, Store store) {
    const auto liFiles = static_cast<int64_t>(vecFiles.size());
    for (int64_t liRow = 0; liRow < liRows; ++liRow) {
        _RivalEntry entry = {0, 0, RowDigest(liRow), 0};
        std::string strPath = "/usr/lib/" + DigestText(entry.md5) + "/" + std::to_string(liRow);
        if (liRow < liFiles) {
            strPath = vecFiles[static_cast<size_t>(liRow)];
            Require(ReadEntry(strPath, entry), "read a file's status");
        }
        store(strPath, entry);
    }
}

std::string FileMD5(const std::string &strFile) {
    md5_ctx context;
    md5_init(&context);
    const int fd = open(strFile.c_str(), O_RDONLY | O_CLOEXEC);
    Require(fd >= 0, "open a file");
    std::array<uint8_t, 65536> abBuffer;
    for (ssize_t nRead = 0; (nRead = read(fd, abBuffer.data(), abBuffer.size())) > 0;) {
        md5_update(&context, static_cast<size_t>(nRead), abBuffer.data());
    }
    (void)close(fd);
    std::string strDigest(MD5_DIGEST_SIZE, '\0');
    md5_digest(&context, strDigest.size(), reinterpret_cast<uint8_t *>(strDigest.data()));
    return strDigest;
}

} // namespace

CPlainSqlite::CPlainSqlite(const std::string &strPath, int64_t liRows, const std::vector<std::string> &vecFiles) {
    Require(sqlite3_open(strPath.c_str(), &m_pDB) == SQLITE_OK, "open the plain database");
    const char *pszSchema = "pragma synchronous=off; pragma journal_mode=off; pragma cache_size=-400000; begin;"
                            "create table scans(path text primary key, size integer, ctime integer, high integer, "
                            "low integer, verdict integer);";
    Require(sqlite3_exec(m_pDB, pszSchema, nullptr, nullptr, nullptr) == SQLITE_OK, "make the plain table");
    sqlite3_stmt *pInsert = nullptr;
    (void)sqlite3_prepare_v2(m_pDB, "insert into scans values(?,?,?,?,?,?);", -1, &pInsert, nullptr);
    ForEachEntry(liRows, vecFiles, [pInsert](const std::string &strFile, const _RivalEntry &entry) {
        sqlite3_bind_text(pInsert, 1, strFile.c_str(), -1, SQLITE_STATIC);
        sqlite3_bind_int64(pInsert, 2, entry.liSize);
        sqlite3_bind_int64(pInsert, 3, entry.liChangeTime);
        sqlite3_bind_int64(pInsert, 4, entry.md5.liHighMD5);
        sqlite3_bind_int64(pInsert, 5, entry.md5.liLowMD5);
        sqlite3_bind_int64(pInsert, 6, entry.liTreatVirus);
        Require(sqlite3_step(pInsert) == SQLITE_DONE, "fill the plain table");
        sqlite3_reset(pInsert);
    });
    sqlite3_finalize(pInsert);
    // Filled fast, used as the cache uses its database: rollback journal, 8000 pages.
    const char *pszUse = "commit; pragma journal_mode=delete; pragma synchronous=full; pragma cache_size=8000;";
    Require(sqlite3_exec(m_pDB, pszUse, nullptr, nullptr, nullptr) == SQLITE_OK, "set the plain database up");
    m_pKept = Prepare();
}

CPlainSqlite::~CPlainSqlite() {
    sqlite3_finalize(m_pKept);
    sqlite3_close_v2(m_pDB);
}

sqlite3_stmt *CPlainSqlite::Prepare() const {
    sqlite3_stmt *pStmt = nullptr;
    (void)sqlite3_prepare_v2(m_pDB, "select size, ctime, high, low, verdict from scans where path = ?;", -1, &pStmt,
                             nullptr);
    return pStmt;
}

bool CPlainSqlite::Ask(sqlite3_stmt *pStmt, const std::string &strFile) {
    _RivalEntry now = {};
    if (!ReadEntry(strFile, now)) {
        return false;
    }
    sqlite3_bind_text(pStmt, 1, strFile.c_str(), static_cast<int>(strFile.size()), SQLITE_STATIC);
    if (sqlite3_step(pStmt) != SQLITE_ROW) {
        return false;
    }
    const _RivalEntry stored = {sqlite3_column_int64(pStmt, 0),
                                sqlite3_column_int64(pStmt, 1),
                                {sqlite3_column_int64(pStmt, 2), sqlite3_column_int64(pStmt, 3)},
                                sqlite3_column_int64(pStmt, 4)};
    return IsUnchanged(stored, now);
}

bool CPlainSqlite::LookUpPreparing(const std::string &strFile) {
    sqlite3_stmt *pStmt = Prepare();
    const bool bKnown = Ask(pStmt, strFile);
    sqlite3_finalize(pStmt);
    return bKnown;
}

bool CPlainSqlite::LookUpKept(const std::string &strFile) {
    const bool bKnown = Ask(m_pKept, strFile);
    sqlite3_reset(m_pKept);
    return bKnown;
}

CLmdbStore::CLmdbStore(const std::string &strPath, int64_t liRows, const std::vector<std::string> &vecFiles) {
    MDB_txn *pWriter = nullptr;
    Require(mdb_env_create(&m_pEnv) == 0 && mdb_env_set_mapsize(m_pEnv, kMapBytes) == 0 &&
                mdb_env_open(m_pEnv, strPath.c_str(), MDB_NOSUBDIR | MDB_NOSYNC, 0600) == 0 &&
                mdb_txn_begin(m_pEnv, nullptr, 0, &pWriter) == 0 && mdb_dbi_open(pWriter, nullptr, 0, &m_dbi) == 0,
            "open the memory-mapped store");
    ForEachEntry(liRows, vecFiles, [this, pWriter](const std::string &strFile, const _RivalEntry &entry) {
        std::string strKey = strFile;
        _RivalEntry copy = entry;
        MDB_val key = {strKey.size(), strKey.data()};
        MDB_val value = {sizeof copy, &copy};
        Require(mdb_put(pWriter, m_dbi, &key, &value, 0) == 0, "fill the memory-mapped store");
    });
    Require(mdb_txn_commit(pWriter) == 0 && mdb_txn_begin(m_pEnv, nullptr, MDB_RDONLY, &m_pReader) == 0,
            "commit the memory-mapped store");
    mdb_txn_reset(m_pReader);
}

CLmdbStore::~CLmdbStore() {
    mdb_txn_abort(m_pReader);
    mdb_env_close(m_pEnv);
}

bool CLmdbStore::LookUp(const std::string &strFile) {
    _RivalEntry now = {};
    std::string strKey = strFile;
    MDB_val key = {strKey.size(), strKey.data()};
    MDB_val value = {};
    if (!ReadEntry(strFile, now) || mdb_txn_renew(m_pReader) != 0) {
        return false;
    }
    _RivalEntry stored = {};
    const bool bFound = mdb_get(m_pReader, m_dbi, &key, &value) == 0 && value.mv_size == sizeof stored;
    if (bFound) {
        std::memcpy(&stored, value.mv_data, sizeof stored);
    }
    mdb_txn_reset(m_pReader);
    return bFound && IsUnchanged(stored, now);
}

CRehashMap::CRehashMap(const std::vector<std::string> &vecFiles) {
    for (const std::string &strFile : vecFiles) {
        m_mapVerdicts.emplace(FileMD5(strFile), 0);
    }
}

bool CRehashMap::LookUp(const std::string &strFile) const {
    return m_mapVerdicts.count(FileMD5(strFile)) != 0;
}
