#include "util/dbconfig.h"

#include "interface/tarncache.h"
#include "tests/support/install.h"
#include "tests/support/services.h"

#include <gtest/gtest.h>

using Numbers = std::vector<int64_t>;

class Config : public testing::Test {
  protected:
    void SetUp() override {
        RecordedLog::SetSource("dbconfig");
        RecordedLog::SetDebug(true);
    }
    // Every number, in the order of the record's fields.
    Numbers Read(const std::string &strText) {
        m_config = {};
        m_install.WriteFile("config/tarncfg.ini", strText);
        EXPECT_EQ(ReadDBConfig(&m_config), TARN_OK) << strText;
        const auto liDiskThreshold = static_cast<int64_t>(m_config.liDiskThreshold);
        return {liDiskThreshold,          m_config.lCacheSize,     m_config.liExpireTime,
                m_config.lExpireInterval, m_config.lDBQueryCounts, m_config.lExpirePercent};
    }
    const CTempInstall m_install;
    const std::string m_strDir = m_install.Path("engine/cache/");
    _DBConfig m_config = {};
};

TEST_F(Config, MissingKeysTakeDefaultsAndAMissingFolderIsMade) {
    std::filesystem::remove(m_install.Path("engine/cache"));
    const mode_t mask = umask(0);
    EXPECT_EQ(Read("[other]\ncachesize=1\n"), (Numbers{500, 8000, 0, 90, 0, 30})); // bytes, unlike the key's megabytes
    umask(mask);
    EXPECT_EQ(m_config.szDBDir, m_strDir);
    EXPECT_STREQ(m_config.szDBName, "morcache.db");
    EXPECT_EQ(std::filesystem::status(m_strDir).permissions(), std::filesystem::perms{0660});
    const std::vector<std::string> vecTexts = RecordedLog::Texts(4); // in the order of reading
    ASSERT_EQ(vecTexts.size(), 10U);
    EXPECT_EQ(vecTexts[3], "[ReadDBConfig][cache] get key:dbname from config:" + m_install.Config() + " failed.");
    EXPECT_EQ(vecTexts[4], "[ReadDBConfig][cache] get key:cachesize from config failed.");
    EXPECT_EQ(vecTexts[9], "[ReadDBConfig][cache] get key:dbquerycounts from config failed.");
}

TEST_F(Config, EveryKeyIsParsedIntoItsField) {
    const std::pair<std::string, Numbers> cases[] = {
        {"cachesize=-2000\nexpireinterval=7\ndbquerycounts=3", {500, -2000, 0, 7, 3, 30}},
        {"cachesize=many\nexpireinterval=-1", {500, 0, 0, 4294967295, 0, 30}},
        {"cachesize=4294967297\nexpirepercent=100", {500, 1, 0, 90, 0, 100}},
        {"diskthreshold=1\nexpirepercent=250", {1048576, 8000, 0, 90, 0, 100}},
        {"diskthreshold=-1\nexpirepercent=-1", {-1048576, 8000, 0, 90, 0, 100}},
        {"diskthreshold=2147483648\nexpirepercent=0", {-2251799813685248, 8000, 0, 90, 0, 0}},
        {"expiretime=9223372036854775807", {500, 8000, 9223372036854775807, 90, 0, 30}}};
    for (const auto &[strSettings, vecExpected] : cases) {
        EXPECT_EQ(Read("[cacheeng]\n" + strSettings + "\n"), vecExpected) << strSettings;
    }
    (void)Read("[cacheeng]\ndbname=" + std::string(200, 'n') + "\n");
    EXPECT_EQ(m_config.szDBName, std::string(63, 'n'));
    (void)Read("[cacheeng]\ndbname=\n"); // the folder itself would be the database
    EXPECT_EQ(m_config.szDBName, std::string("morcache.db"));
    EXPECT_TRUE(RecordedLog::Contains("[ReadDBConfig][cache] read expire percent:250."));
}

TEST_F(Config, FailuresAreReportedAtDebugLevel) {
    std::filesystem::remove(m_install.Config());
    std::filesystem::remove(m_install.Path("engine/cache"));
    m_config.lCacheSize = 77;
    EXPECT_EQ(WriteDBConfig(&m_config), TARN_E_FAIL);
    EXPECT_EQ(ReadDBConfig(&m_config), TARN_E_FAIL);
    EXPECT_TRUE(Exists(m_strDir));
    EXPECT_EQ(m_config.lCacheSize, 77); // as before
    EXPECT_TRUE(RecordedLog::Contains("[ReadDBConfig][cache] load config file:" + m_install.Config() + " failed."));
    std::filesystem::remove_all(m_install.Path("engine")); // only the last component is made
    EXPECT_EQ(ReadDBConfig(&m_config), TARN_E_FAIL);
    EXPECT_EQ(RecordedLog::Texts(4).back().rfind("[ReadDBConfig][cache] mkdir " + m_strDir + " failed, err:", 0), 0U);
    std::filesystem::create_symlink("/proc/version", m_install.Config()); // readable, and nobody can write it
    EXPECT_EQ(WriteDBConfig(&m_config), TARN_E_FAIL);
    EXPECT_EQ(RecordedLog::Texts(4).back().rfind("[WriteDBConfig][cache] save ini file failed, err:", 0), 0U);
    EXPECT_EQ(ReadDBConfig(nullptr), TARN_E_FAIL);
    EXPECT_EQ(RecordedLog::Texts(2), std::vector<std::string>{"[ReadDBConfig][cache] arg pDBCfg is null."});
}
