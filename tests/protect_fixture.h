// protect_fixture.h - a running cache with or without the key "protect", as the test's parameter says.
#ifndef TARN_TESTS_PROTECT_FIXTURE_H
#define TARN_TESTS_PROTECT_FIXTURE_H

#include "tests/agent_fixture.h"

#include <sys/stat.h>

inline struct stat StatusOf(const std::string &strPath) {
    struct stat status = {};
    EXPECT_EQ(lstat(strPath.c_str(), &status), 0) << strPath;
    return status;
}

class ProtectTest : public testing::TestWithParam<bool> {
  protected:
    ProtectTest() { Restart(); }
    ~ProtectTest() override { (void)LocalCacheUnInit(); }
    // Another installation of the cache in the same folder; its records stay.
    void Restart(bool bProtect = GetParam()) {
        (void)LocalCacheUnInit();
        m_install.WriteFile("config/tarncfg.ini",
                            std::string("[cacheeng]\nexpiretime=4102444800\n") + (bProtect ? "protect=1\n" : ""));
        EXPECT_EQ(LocalCacheInit(), TARN_OK);
        // The start is counted behind its vacuum, which keeps other connections out.
        EXPECT_TRUE(
            WaitFor([this] { return ReadWholeFile(m_install.Config()).find("counts=1") != std::string::npos; }));
    }
    void Remember(const std::string &strPath, const std::string &strDesc = "", int32_t lEngine = 1) {
        const struct stat status = StatusOf(strPath);
        const _SCAN_FILE_RESULT verdict = Verdict(lEngine, 1, strDesc);
        ASSERT_EQ(LocalCacheAddStat(strPath.c_str(), &status, DigestText(7).c_str(), &verdict), TARN_OK);
        ASSERT_EQ(LocalCacheFlush(60000, nullptr), TARN_OK);
    }
    uint32_t Lookup(const std::string &strPath, const struct stat &status) {
        return LocalCacheLookupStat(strPath.c_str(), &status, m_szMD5, &m_found);
    }
    uint32_t Lookup(const std::string &strPath) { return Lookup(strPath, StatusOf(strPath)); }
    static uint32_t Fooled() { return GetParam() ? TARN_NOT_CACHED : TARN_OK; }
    const CTempInstall m_install;
    char m_szMD5[TARN_MD5_TEXT_SIZE] = {};
    _SCAN_FILE_RESULT m_found = {};
};

#endif
