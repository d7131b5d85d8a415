// What an update withdraws with the key "protect": in force from the start that finds it until it is deleted.
#include "tests/protect_fixture.h"

namespace fs = std::filesystem;

class Withdrawal : public ProtectTest {
  protected:
    std::string Left() const {
        std::string strLeft;
        for (const char *pszName : {"clean_engine_flag", "clean_engine_flag.taken", "clean_engine_hash_flag",
                                    "kelmorehash/update_cache.dat", "kelmorehash/update_cache.taken"}) {
            strLeft += Exists(m_install.Path(std::string("engine/") + pszName)) ? std::string(pszName) + " " : "";
        }
        return strLeft;
    }
    const std::string m_strDigests = "engine:1\n" + DigestText(7) + "\n";
};

INSTANTIATE_TEST_SUITE_P(Cache, Withdrawal, testing::Bool(), NameOfParameter);

TEST_P(Withdrawal, ALookupBeforeTheWriterHasReadTheListIsNotAnswered) {
    Remember(m_strFile);
    (void)LocalCacheUnInit();
    LeaveList(m_install, m_strDigests);
    TestLoop::s_iThreadError = EAGAIN; // a writer that never comes so far
    ASSERT_EQ(LocalCacheInit(), TARN_OK);
    EXPECT_EQ(Lookup(m_strFile), Fooled());
    TestLoop::s_iThreadError = 0;
    Restart();
    EXPECT_EQ(Lookup(m_strFile), TARN_NOT_CACHED);
}

TEST_P(Withdrawal, AListThatComesWhileAnotherIsWorkedOffIsTakenAtOnce) {
    Remember(m_strFile, Verdict(1), DigestText(8));
    (void)LocalCacheUnInit();
    LeaveList(m_install, m_strDigests);
    bool bComes = true;
    g_onStatement = [&](const std::string &strSQL) {
        if (strSQL.starts_with("delete from CT where FHMD") && std::exchange(bComes, false)) {
            LeaveList(m_install, "engine:2\n" + DigestText(8) + "\n");
        }
    };
    g_bWatch = true;
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(OnOpen));
    ASSERT_EQ(LocalCacheInit(), TARN_OK);
    g_bWatch = false;
    EXPECT_EQ(LocalCacheWaitReady(60000), TARN_OK);
    EXPECT_EQ(Lookup(m_strFile), Fooled());
    EXPECT_EQ(Left(), "");
    (void)LocalCacheUnInit();
}

TEST_P(Withdrawal, AListThatIsNoneStaysAndHoldsNobodyUp) {
    Remember(m_strFile);
    (void)LocalCacheUnInit();
    LeaveList(m_install, "no version line\n");
    const std::string strList = ReadWholeFile(m_install.Path("engine/kelmorehash/update_cache.dat"));
    ASSERT_EQ(LocalCacheInit(), TARN_OK);
    EXPECT_EQ(LocalCacheWaitReady(60000), TARN_E_FAIL);
    EXPECT_EQ(Lookup(m_strFile), TARN_OK);
    EXPECT_EQ(Left(), "clean_engine_hash_flag kelmorehash/update_cache.dat ");
    EXPECT_EQ(ReadWholeFile(m_install.Path("engine/kelmorehash/update_cache.dat")), strList);
    (void)LocalCacheUnInit();
    LeaveList(m_install, "engine:1\nas a wrong key may leave it\n");
    ASSERT_EQ(LocalCacheInit(), TARN_OK);
    EXPECT_EQ(LocalCacheWaitReady(60000), GetParam() ? TARN_E_FAIL : TARN_OK);
    EXPECT_EQ(Left(), GetParam() ? "clean_engine_hash_flag kelmorehash/update_cache.dat " : "");
}
