// What an unprivileged user who has read the sources could try: each attack first works without the key "protect", so
// that its case can fail, and fails with it.
#include "tests/protect_fixture.h"

#include <fstream>

namespace fs = std::filesystem;

namespace {

uint32_t AttrHash(int64_t liSize, int64_t liSecond) {
    const int64_t aliBlock[] = {liSize, liSecond};
    return Crc32(0, reinterpret_cast<const unsigned char *>(aliBlock), sizeof aliBlock);
}

// A size below 2^44 bytes that gives the wanted hash at that second. A CRC is linear over the bits of the size, so this
// is a small system of equations.
int64_t ForgeSize(uint32_t ulWanted, int64_t liSecond) {
    std::map<uint32_t, int64_t, std::greater<>> mapBasis; // what a change of the size changes in the hash
    const auto reduce = [&](std::pair<uint32_t, int64_t> row) {
        for (const auto &[ulHash, liSize] : mapBasis) {
            if ((row.first ^ ulHash) < row.first) {
                row = {row.first ^ ulHash, row.second ^ liSize};
            }
        }
        return row;
    };
    const uint32_t ulZero = AttrHash(0, liSecond);
    for (int64_t liBit = 1; liBit < int64_t{1} << 44; liBit *= 2) {
        mapBasis.insert(reduce({AttrHash(liBit, liSecond) ^ ulZero, liBit}));
    }
    const auto [ulRest, liSize] = reduce({ulWanted ^ ulZero, 0});
    return ulRest == 0 ? liSize : -1;
}

uint32_t FolderCrc(const std::string &strFolder) {
    return Crc32(0, reinterpret_cast<const unsigned char *>(strFolder.data()), strFolder.size()) & 0xFFFFU;
}

} // namespace

using Attacks = ProtectTest;
INSTANTIATE_TEST_SUITE_P(Cache, Attacks, testing::Bool(), NameOfParameter);

TEST_P(Attacks, ASizeChosenSoThatTheAttributeHashStays) {
    Remember(m_strFile);
    struct stat malware = StatusOf(m_strFile);
    const uint32_t ulWanted = AttrHash(malware.st_size, malware.st_ctim.tv_sec);
    malware.st_ctim.tv_sec += 60;
    EXPECT_EQ(Lookup(m_strFile, malware), TARN_NOT_CACHED);
    malware.st_size = ForgeSize(ulWanted, malware.st_ctim.tv_sec);
    ASSERT_GT(malware.st_size, 0);
    EXPECT_EQ(Lookup(m_strFile, malware), Fooled());
}

TEST_P(Attacks, AFolderChosenSoThatThePathHashIsAnothersFile) {
    const std::string strHome = m_install.Path("home/");
    const uint32_t ulWanted = FolderCrc(strHome);
    std::string strFolder;
    for (int i = 0; strFolder.empty(); ++i) {
        const std::string strTried = m_install.Path(std::to_string(i) + "/");
        strFolder = FolderCrc(strTried) == ulWanted ? strTried : "";
    }
    fs::create_directory(strHome);
    fs::create_directory(strFolder);
    std::ofstream(strHome + "name") << "clean";
    std::ofstream(strFolder + "name") << "malwr";
    Remember(strHome + "name");
    struct stat malware = StatusOf(strFolder + "name");
    malware.st_ctim.tv_sec = StatusOf(strHome + "name").st_ctim.tv_sec; // made in the same second
    EXPECT_EQ(Lookup(strFolder + "name", malware), Fooled());
    EXPECT_EQ(Lookup(strHome + "name"), TARN_OK);
}

TEST_P(Attacks, AnotherFileOfTheSameSizeAndSecondInItsPlace) {
    Remember(m_strFile);
    const std::pair<const char *, void (*)(struct stat &)> differences[] = {
        {"file", [](struct stat &status) { ++status.st_ino; }},
        {"part of the second", [](struct stat &status) { status.st_ctim.tv_nsec ^= 1; }},
        {"device", [](struct stat &status) { status.st_dev ^= 1; }}, // not the one that the path leads to
    };
    for (const auto &[pszName, change] : differences) {
        struct stat other = StatusOf(m_strFile);
        change(other);
        EXPECT_EQ(Lookup(m_strFile, other), Fooled()) << pszName;
    }
    EXPECT_EQ(Lookup(m_strFile), TARN_OK);
}

TEST_P(Attacks, AVerdictChangedInTheDatabaseByHand) {
    Remember(m_strFile, Verdict(1, 1, "Some.Virus"));
    const CSecondConnection other(m_install.Database());
    for (const char *pszChange : {"FTV = FTV | (-1 << 48)", "FTV = FTV + 8", "RS = RS + 1", "FHMD = 1", "FLMD = 1"}) {
        ASSERT_TRUE(WaitFor([&] { return other.Run("create table B as select * from CT"); })) << pszChange;
        ASSERT_TRUE(other.Run(std::string("update CT set ") + pszChange)) << pszChange;
        EXPECT_EQ(Lookup(m_strFile), Fooled()) << pszChange;
        ASSERT_TRUE(other.Run("replace into CT select * from B; drop table B")) << pszChange;
        EXPECT_EQ(Lookup(m_strFile), TARN_OK) << pszChange;
    }
    ASSERT_TRUE(other.Run("update VDT set VD = 'Harmless'"));
    Restart(); // descriptions are kept in memory
    EXPECT_EQ(Lookup(m_strFile), Fooled());
}

TEST_P(Attacks, ARestoredOlderDatabaseOrAForeignOneAnswersForNoChangedFile) {
    Remember(m_strFile);
    (void)LocalCacheUnInit();
    fs::copy(m_install.Database(), m_install.Path("backup"));
    fs::remove(m_install.Path("engine/cache/morcache.key")); // another machine has another key
    Restart();
    EXPECT_EQ(Lookup(m_strFile), Fooled());
    Remember(m_strFile);
    EXPECT_EQ(Lookup(m_strFile), TARN_OK); // everything misses once
}
