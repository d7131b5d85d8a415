// identity.h - what binds records to their files while the key "protect" is set: a key of this installation, the
// identity of file systems, and the table of codes.
#ifndef TARN_AGENT_IDENTITY_H
#define TARN_AGENT_IDENTITY_H

#include "tables/identitytable.h"
#include "util/dbconfig.h"
#include "util/file_systems.h"
#include "util/identity_code.h"

class CIdentity {
  public:
    CIdentityTable m_table; // guarded by the table lock, as the cache table is

    [[nodiscard]] static std::string KeyPath(const _DBConfig &config);

    explicit CIdentity(sqlite3 *pDB) : m_table(pDB) {}

    // Start-up. Reads or makes the key beside the database. TARN_OK; TARN_E_FAIL (logged).
    [[nodiscard]] uint32_t LoadKey(const _DBConfig &config);
    // Makes the table. TARN_OK; TARN_E_FAIL (logged).
    [[nodiscard]] uint32_t MakeTable(const std::string &strCacheTable);
    // Start-up of a reader: makes nothing. Without key or table every question is answered with no.
    void OpenForReading(const _DBConfig &config);

    // The rest any thread; Find and the code need no lock.

    // The file as the status shows it. False: its file system cannot be told, and nothing may be said about the file.
    [[nodiscard]] bool FindFileSystem(const char *pszPath, const struct stat &status, uint64_t &ullFileSystem);
    [[nodiscard]] IdentityCode CodeOf(const _FileIdentity &file, const _CacheRecord &record,
                                      const char *pszDescription) const;
    // Is the code in the record that of this record about this file?
    [[nodiscard]] bool Confirms(const _FileIdentity &file, const _CacheRecord &record,
                                const char *pszDescription) const;

  private:
    CIdentityKey m_key;
    CFileSystems m_fileSystems;
    bool m_bHasKey = false; // set at start-up
};

#endif
