// install.h - a temporary installation folder, files in it, and a database connection beside the library's own. Serves
// tests and benchmarks.
#ifndef TARN_TESTS_SUPPORT_INSTALL_H
#define TARN_TESTS_SUPPORT_INSTALL_H

#include <cstdint>
#include <filesystem>
#include <string>
#include <sys/stat.h>

struct sqlite3;

// An installation folder (below TMPDIR) with lib/, config/, engine/cache/ and engine/kelmorehash/ that TARN_INSTALL_DIR
// points into while it lives. Holds tarncfg.ini with the given text in section "cacheeng". What cannot be made or
// written throws.
class CTempInstall {
  public:
    explicit CTempInstall(const std::string &strSettings = "");
    ~CTempInstall();
    CTempInstall(const CTempInstall &) = delete;
    CTempInstall &operator=(const CTempInstall &) = delete;

    std::string Path(const std::string &strBelow) const { return m_root / strBelow; } // an absolute name stays as it is
    std::string Config() const { return Path("config/tarncfg.ini"); }
    std::string Database(const std::string &strName = "morcache.db") const { return Path("engine/cache/" + strName); }
    // Writes a file (below the folder) and returns its path.
    std::string WriteFile(const std::string &strBelow, const std::string &strContent = "content") const;

  private:
    std::filesystem::path m_root;
};

std::string ReadWholeFile(const std::string &strPath);
bool Exists(const std::string &strPath);
// How much of a long test runs, in percent: TARN_TEST_LENGTH, else 10, under a sanitizer 1.
uint64_t TestLength();
struct stat StatusOf(const std::string &strPath); // of a link itself; throws where there is none

// A second connection to a database file.
class CSecondConnection {
  public:
    explicit CSecondConnection(const std::string &strPath);
    ~CSecondConnection();
    CSecondConnection(const CSecondConnection &) = delete;
    CSecondConnection &operator=(const CSecondConnection &) = delete;

    // Runs statements; false when one fails.
    bool Run(const std::string &strSQL) const;
    // First column of the first row; empty, or the fallback, when the query fails or has no row.
    std::string Text(const std::string &strSQL) const;
    int64_t Number(const std::string &strSQL, int64_t liFallback = -1) const;

    sqlite3 *m_pDB = nullptr;
};

#endif
