#include "tests/support/install.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sqlite3.h>
#include <sstream>
#include <system_error>

namespace fs = std::filesystem;

CTempInstall::CTempInstall(const std::string &strSettings) {
    std::string strTemplate = fs::temp_directory_path() / "tarn-test-XXXXXX";
    if (mkdtemp(strTemplate.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), strTemplate);
    }
    m_root = strTemplate;
    for (const char *pszDir : {"lib", "config", "engine/cache", "engine/kelmorehash"}) {
        fs::create_directories(m_root / pszDir);
    }
    WriteFile("config/tarncfg.ini", "[cacheeng]\n" + strSettings);
    setenv("TARN_INSTALL_DIR", Path("lib").c_str(), 1);
}

CTempInstall::~CTempInstall() {
    std::error_code error;
    fs::remove_all(m_root, error);
}

std::string CTempInstall::WriteFile(const std::string &strBelow, const std::string &strContent) const {
    std::ofstream file(Path(strBelow), std::ios::binary | std::ios::trunc);
    file.exceptions(std::ios::failbit | std::ios::badbit);
    file << strContent << std::flush;
    return Path(strBelow);
}

std::string ReadWholeFile(const std::string &strPath) {
    return (std::ostringstream() << std::ifstream(strPath, std::ios::binary).rdbuf()).str();
}

bool Exists(const std::string &strPath) {
    return fs::exists(fs::symlink_status(strPath));
}

uint64_t TestLength() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const uint64_t nDefault = 1;
#else
    const uint64_t nDefault = 10;
#endif
    const char *pszLength = getenv("TARN_TEST_LENGTH");
    return pszLength != nullptr ? strtoul(pszLength, nullptr, 10) : nDefault;
}

struct stat StatusOf(const std::string &strPath) {
    struct stat status = {};
    if (lstat(strPath.c_str(), &status) != 0) {
        throw std::system_error(errno, std::generic_category(), strPath);
    }
    return status;
}

CSecondConnection::CSecondConnection(const std::string &strPath) {
    sqlite3_open(strPath.c_str(), &m_pDB);
}

CSecondConnection::~CSecondConnection() {
    sqlite3_close_v2(m_pDB);
}

bool CSecondConnection::Run(const std::string &strSQL) const {
    return sqlite3_exec(m_pDB, strSQL.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

int64_t CSecondConnection::Number(const std::string &strSQL, int64_t liFallback) const {
    const std::string strNumber = Text(strSQL);
    return strNumber.empty() ? liFallback : std::stoll(strNumber);
}

std::string CSecondConnection::Text(const std::string &strSQL) const {
    sqlite3_stmt *pStmt = nullptr;
    sqlite3_prepare_v2(m_pDB, strSQL.c_str(), -1, &pStmt, nullptr);
    std::string strResult;
    if (sqlite3_step(pStmt) == SQLITE_ROW) {
        const void *pBytes = sqlite3_column_blob(pStmt, 0);
        strResult.assign(static_cast<const char *>(pBytes), static_cast<size_t>(sqlite3_column_bytes(pStmt, 0)));
    }
    sqlite3_finalize(pStmt);
    return strResult;
}
