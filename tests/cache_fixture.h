// cache_fixture.h - a running cache as a host sees it, through the exported functions.
#ifndef TARN_TESTS_CACHE_FIXTURE_H
#define TARN_TESTS_CACHE_FIXTURE_H

#include "tests/agent_fixture.h"

using Codes = std::vector<uint32_t>; // what calls answered, one after the other

class CCacheTest : public testing::Test {
  protected:
    CCacheTest() { RecordedLog::SetSource("tarncache"); }
    ~CCacheTest() override { (void)LocalCacheUnInit(); }
    void Start() {
        ASSERT_EQ(LocalCacheInit(), TARN_OK);
        ASSERT_TRUE(WaitForFirstStart(m_install));
    }
    static uint32_t Add(const std::string &strPath, _SCAN_FILE_RESULT verdict = Verdict(1),
                        const std::string &strMD5 = DigestText(7)) {
        return LocalCacheAdd(strPath.c_str(), strMD5.c_str(), &verdict);
    }
    static void Remember(const std::string &strPath, const _SCAN_FILE_RESULT &verdict = Verdict(1),
                         const std::string &strMD5 = DigestText(7)) {
        ASSERT_EQ(Add(strPath, verdict, strMD5), TARN_OK);
        ASSERT_EQ(LocalCacheFlush(60000, nullptr), TARN_OK);
    }
    uint32_t Lookup(const std::string &strPath) { return LocalCacheLookup(strPath.c_str(), m_szMD5, &m_found); }
    uint32_t Lookup(const std::string &strPath, const struct stat &status) {
        return LocalCacheLookupStat(strPath.c_str(), &status, m_szMD5, &m_found);
    }
    static _LOCAL_CACHE_INFO Info() {
        _LOCAL_CACHE_INFO info = {};
        info.size = sizeof info;
        EXPECT_EQ(LocalCacheGetInfo(&info), TARN_OK);
        return info;
    }
    static uint32_t Reason(const std::string &strPath) {
        _LOCAL_CACHE_EXPLANATION told = {};
        told.size = sizeof told;
        EXPECT_EQ(LocalCacheExplain(strPath.c_str(), &told), TARN_OK);
        EXPECT_EQ(told.ulHasRecord, told.ulReason == TARN_WHY_UNKNOWN ? 0U : 1U);
        return told.ulReason;
    }
    bool Run(const std::string &strSQL) const { return CSecondConnection(m_install.Database()).Run(strSQL); }

    const CTempInstall m_install;
    const std::string m_strFile = m_install.WriteFile("file");
    char m_szMD5[TARN_MD5_TEXT_SIZE] = {};
    _SCAN_FILE_RESULT m_found = {};
};

#endif
