// The codes that bind records to their files: their life in the database, and damage.
#include "tests/protect_fixture.h"

#include <iostream>
#include <random>

namespace fs = std::filesystem;

using Identity = ProtectTest;
INSTANTIATE_TEST_SUITE_P(Cache, Identity, testing::Values(true), NameOfParameter);

TEST_P(Identity, OlderRecordsMissUntilTheyAreReplaced) {
    Restart(false);
    Remember(m_strFile);
    Restart();
    EXPECT_EQ(Lookup(m_strFile), TARN_NOT_CACHED);
    EXPECT_EQ(Reason(m_strFile), TARN_WHY_OTHER);
    Remember(m_strFile);
    EXPECT_EQ(Lookup(m_strFile), TARN_OK);
}

TEST_P(Identity, CodesGoWithTheirRecordsHoweverTheseAreDeleted) {
    const CSecondConnection other(m_install.Database());
    const auto count = [&] { return other.Number("select count(*) from CIT"); };
    const std::pair<const char *, std::function<uint32_t()>> deletions[] = {
        {"path", [&] { return LocalCacheDeleteByPath(m_strFile.c_str()); }},
        {"engine", [] { return LocalCacheDeleteByEngine(1); }},
        {"digest", [] { return LocalCacheDeleteByFileHash(DigestText(7).c_str()); }},
        {"all", [] { return LocalCacheClear(); }},
    };
    for (const auto &[pszName, deletion] : deletions) {
        Remember(m_strFile);
        ASSERT_TRUE(WaitFor([&] { return count() == 1; })) << pszName;
        EXPECT_EQ(deletion(), TARN_OK) << pszName;
        EXPECT_EQ(count(), 0) << pszName;
    }
    Remember(m_strFile);
    ASSERT_TRUE(other.Run("with recursive n(i) as (select 1 union all select i + 1 from n where i < 5000) "
                          "insert into CIT select i, zeroblob(16) from n")); // left by a library without codes
    Restart();
    EXPECT_TRUE(WaitFor([&] { return count() == 1; }));
    EXPECT_EQ(Lookup(m_strFile), TARN_OK);
}

TEST_P(Identity, TheKeyIsPrivateAndOneThatWasNotIsReplaced) {
    const std::string strKey = m_install.Path("engine/cache/morcache.key");
    const std::string strFirst = ReadWholeFile(strKey);
    EXPECT_EQ(strFirst.size(), 32U);
    EXPECT_EQ(StatusOf(strKey).st_mode & 07777U, 0600U);
    Restart();
    EXPECT_EQ(ReadWholeFile(strKey), strFirst);
    (void)chmod(strKey.c_str(), 0640);
    Restart();
    EXPECT_NE(ReadWholeFile(strKey), strFirst);
    m_install.WriteFile("target", strFirst);
    fs::remove(strKey);
    fs::create_symlink(m_install.Path("target"), strKey);
    Restart();
    EXPECT_FALSE(fs::is_symlink(strKey));
    EXPECT_EQ(ReadWholeFile(m_install.Path("target")), strFirst); // not written through
}

// TARN_TEST_LENGTH: the share of 20,000 flips, in percent.
TEST_P(Identity, NoFlippedBitOfTheDatabaseGivesAWrongAnswer) {
    constexpr int kFiles = 8;
    const auto verdict = [](int i) { return Verdict(1, 1, i % 2 == 0 ? "Virus." + std::to_string(i) : ""); };
    for (int i = 0; i < kFiles; ++i) {
        Remember(m_install.WriteFile(std::to_string(i)), verdict(i));
    }
    (void)LocalCacheUnInit();
    const std::string strGood = ReadWholeFile(m_install.Database());
    const char *pszLength = getenv("TARN_TEST_LENGTH");
    const int nFlips = 200 * (pszLength != nullptr ? atoi(pszLength) : 3);
    const unsigned int ulSeed = std::random_device()();
    std::mt19937 random(ulSeed);
    int nAnswers = 0;
    for (int iFlip = 0; iFlip < nFlips; ++iFlip) {
        std::string strBad = strGood;
        const size_t nBit = random() % (strBad.size() * 8);
        strBad[nBit / 8] = static_cast<char>(strBad[nBit / 8] ^ 1 << nBit % 8);
        m_install.WriteFile("engine/cache/morcache.db", strBad);
        const bool bStarted = LocalCacheInitReader() == TARN_OK;
        for (int i = 0; bStarted && i < kFiles; ++i) {
            m_found = {};
            if (Lookup(m_install.Path(std::to_string(i))) == TARN_OK) {
                ++nAnswers;
                const _SCAN_FILE_RESULT expected = verdict(i);
                ASSERT_EQ(std::memcmp(&m_found, &expected, sizeof expected), 0)
                    << "seed " << ulSeed << ", bit " << nBit;
                ASSERT_EQ(m_szMD5, DigestText(7)) << "seed " << ulSeed << ", bit " << nBit;
            }
        }
        (void)LocalCacheUnInit();
    }
    std::cout << "seed " << ulSeed << ": " << nFlips << " flips, " << nAnswers << " answers, none wrong\n";
    EXPECT_GT(nAnswers, nFlips); // most flips hurt nothing
}
