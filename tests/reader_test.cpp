// The start for questions alone.
#include "tests/cache_fixture.h"

#include <thread>

namespace fs = std::filesystem;

class Reader : public CCacheTest {
  protected:
    // A database with one remembered file.
    void Remember() {
        ASSERT_EQ(LocalCacheInit(), TARN_OK);
        ASSERT_EQ(Add(m_strFile, Verdict(48, 1, "Name")), TARN_OK);
        ASSERT_EQ(LocalCacheUnInit(), TARN_OK);
    }
    std::string Listing() const {
        std::string strListing;
        for (const auto &entry : fs::recursive_directory_iterator(m_install.Path(""))) {
            const auto time = fs::last_write_time(entry).time_since_epoch().count();
            strListing += entry.path().string() + " " + std::to_string(time) + "\n";
        }
        return strListing;
    }
};

TEST_F(Reader, MakesNothingWhereThereIsNoDatabase) {
    EXPECT_EQ(LocalCacheInitReader(), TARN_NOT_CACHED);
    EXPECT_TRUE(fs::is_empty(m_install.Path("engine/cache")));
    fs::remove(m_install.Path("engine/cache"));
    EXPECT_EQ(LocalCacheInitReader(), TARN_NOT_CACHED);
    EXPECT_TRUE(fs::create_directory(m_install.Path("engine/cache"))); // was not made
    m_install.WriteFile("engine/cache/morcache.db", "");
    EXPECT_EQ(LocalCacheInitReader(), TARN_NOT_CACHED); // another process is about to make it
    fs::remove(m_install.Config());
    EXPECT_EQ(LocalCacheInitReader(), TARN_NOT_CACHED);
    EXPECT_EQ(LocalCacheUnInit(), TARN_E_NOT_MATCHED);
}

TEST_F(Reader, AnswersQuestionsAndRefusesChanges) {
    Remember();
    m_install.WriteFile("config/tarncfg.ini", "[cacheeng]\ndiskthreshold=2000000000\n"); // room that no disk has
    const std::string strBefore = Listing();
    ASSERT_EQ(LocalCacheInitReader(), TARN_OK);
    EXPECT_EQ(Lookup(m_strFile), TARN_OK);
    EXPECT_STREQ(m_found.szVirusDesc, "Name");
    uint64_t ullCount = 0;
    EXPECT_EQ(LocalCacheCountByFileHash(DigestText(7).c_str(), &ullCount), TARN_OK);
    EXPECT_EQ(ullCount, 1U);
    EXPECT_EQ(LocalCacheWaitReady(0), TARN_OK);
    const _LOCAL_CACHE_INFO info = Info();
    EXPECT_EQ(info.ullRecords, 1U);
    EXPECT_EQ(info.ullHits, 0U); // not counted
    EXPECT_EQ(info.ulMode, TARN_MODE_READER);
    const struct stat status = {};
    const Codes codes = {LocalCacheAdd(m_strFile.c_str(), "", &m_found),
                         LocalCacheFlush(0, nullptr),
                         LocalCacheAddStat(m_strFile.c_str(), &status, "", &m_found),
                         LocalCacheDeleteByFileHash(DigestText(7).c_str()),
                         LocalCacheDeleteByEngine(48),
                         LocalCacheDeleteByPath(m_strFile.c_str()),
                         LocalCacheClear(),
                         LocalCacheTrim(),
                         LocalCacheCheck(nullptr, nullptr)}; // would keep writers waiting
    EXPECT_EQ(codes, Codes(9, TARN_E_FAIL));
    ASSERT_EQ(LocalCacheUnInit(), TARN_OK);
    EXPECT_EQ(Listing(), strBefore);
}

TEST_F(Reader, WorksBesideAWriterOfAnotherProcess) {
    Remember();
    const CSecondConnection other(m_install.Database());
    ASSERT_TRUE(other.Run("begin immediate; update CT set QC = 5"));
    ASSERT_EQ(LocalCacheInitReader(), TARN_OK);
    EXPECT_EQ(Lookup(m_strFile), TARN_OK);
    EXPECT_TRUE(other.Run("commit")); // nothing of the reader's is in its way
    ASSERT_EQ(LocalCacheUnInit(), TARN_OK);
    ASSERT_TRUE(other.Run("begin exclusive"));
    const std::jthread release([&other] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        EXPECT_TRUE(other.Run("commit"));
    });
    EXPECT_EQ(LocalCacheInitReader(), TARN_OK); // has waited
}

TEST_F(Reader, LeavesWhatItCannotReadAsItIs) {
    Remember();
    const std::string strGood = ReadWholeFile(m_install.Database());
    ASSERT_TRUE(Run("alter table CT add column X"));
    const std::string strOtherSchema = ReadWholeFile(m_install.Database());
    for (const std::string &strContent : {std::string("no database at all, but long enough to be looked at"),
                                          strGood.substr(0, 4096), strOtherSchema}) {
        SCOPED_TRACE(strContent.size());
        m_install.WriteFile("engine/cache/morcache.db", strContent);
        EXPECT_EQ(LocalCacheInitReader(), TARN_E_FAIL);
        EXPECT_EQ(ReadWholeFile(m_install.Database()), strContent);
    }
}
