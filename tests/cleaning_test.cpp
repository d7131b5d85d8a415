// Expiry, trimming, compaction and the integrity probe.
#include "tests/agent_fixture.h"

#include <fstream>

constexpr int64_t kNow = 5000000000; // more than 32 bits hold
constexpr int64_t kOld = kNow - 3600;

using Cleaning = CAgentTest;

TEST_F(Cleaning, ExpiryKeepsWhatIsUsedOrRecent) {
    const char *const cases[][3] = {
        {"expiretime=5000000001\ndbquerycounts=10\n", "1,2,3,4,5,6,7", ""}, // not due
        {"expiretime=5000000000\ndbquerycounts=10\n", "3,4,5,6,7", "iQueryTimes:3."},
        {"expirepercent=0\ndbquerycounts=10\n", "2,3,4,5,6,7", "iQueryTimes:0."},
        {"expirepercent=100\ndbquerycounts=10\n", "4,7", "iQueryTimes:10."},          // no margin, but not the future
        {"expirepercent=100\ndbquerycounts=50000000\n", "7", "iQueryTimes:7050327."}, // 32 bits
    };
    const std::vector<_Row> vecRows = {{1, 1, 0, kOld},     {2, 1, 3, kOld}, {3, 1, 4, kOld},    {4, 1, 11, kOld},
                                       {5, 1, 0, kOld + 1}, {6, 1, 0, kNow}, {7, 1, 0, kNow + 1}};
    RecordedLog::SetDebug(true);
    TestClock::s_liTime = kNow;
    for (const auto &[pszSettings, pszKept, pszLine] : cases) {
        SCOPED_TRACE(pszSettings);
        RecordedLog::Clear();
        Configure(pszSettings);
        ASSERT_EQ(Start(), TARN_OK);
        ASSERT_TRUE(Run(InsertTexts(vecRows)));
        m_pAgent->DoCleanCachesJob();
        EXPECT_EQ(Keys(), pszKept);
        const bool bDue = *pszLine != '\0';
        EXPECT_EQ(RecordedLog::Count(std::string("[DoCleanCachesJob][cache] ") + pszLine), bDue ? 1U : 0U);
        EXPECT_EQ(Rows("QC > 0") == 0, bDue); // a pass starts a new count
        EXPECT_EQ(Statistics().ulWeedOutRuns, bDue ? 1U : 0U);
    }
}

TEST_F(Cleaning, APassMovesItsDateAndReplacesTheCount) {
    Configure("expireinterval=49712\ndbquerycounts=9\nforeign=1\n"); // 149504 seconds: the product wraps
    ASSERT_EQ(Start(), TARN_OK);
    for (const uint32_t ulPass : {1U, 2U}) {
        TestClock::s_liTime = kNow + int64_t{ulPass} * 2 * 86400;
        ASSERT_TRUE(Run(InsertTexts(ulPass == 1 ? std::vector<_Row>{{1}, {2}, {3}} : std::vector<_Row>{{1}})));
        m_pAgent->DoCleanCachesJob();
        m_pAgent->DoCleanCachesJob(); // not due again
        EXPECT_EQ(Statistics().ulWeedOutCount, ulPass == 1 ? 3U : 1U);
        EXPECT_EQ(Statistics().ulWeedOutRuns, ulPass);
    }
    EXPECT_EQ(ReadWholeFile(m_install.Config()), "[cacheeng]\nexpireinterval=49712\ndbquerycounts=0\nforeign=1\n"
                                                 "dbname=morcache.db\nexpiretime=5000495104\n");
}

TEST_F(Cleaning, AFailedPassStaysDue) {
    ASSERT_EQ(Start(), TARN_OK);
    ASSERT_TRUE(Run(InsertTexts({{1}, {2, 1, 5}})));
    for (const char *pszStep : {"delete", "update"}) {
        ASSERT_TRUE(
            Run(std::string("create trigger T before ") + pszStep + " on CT begin select raise(abort, 'no'); end"));
        m_pAgent->DoCleanCachesJob();
        EXPECT_EQ(Statistics().ulWeedOutRuns, 0U);
        ASSERT_TRUE(Run("drop trigger T"));
    }
    m_pAgent->DoCleanCachesJob();
    EXPECT_EQ(Statistics().ulWeedOutRuns, 1U);
    const std::string strPart = " failed with error code msg = constraint failed";
    EXPECT_TRUE(RecordedLog::Contains("[DoCleanCachesJob][cache] Expire records" + strPart));
    EXPECT_EQ(RecordedLog::Texts(2).back(), "[DoCleanCachesJob][cache] Reset records QC" + strPart);
}

TEST_F(Cleaning, TheTimerTrimsToTheCapOldestFirstAndShrinksTheFile) {
    Configure("expirepercent=2\ndbquerycounts=5\n");
    ASSERT_EQ(Start(), TARN_OK);
    ASSERT_TRUE(Run(InsertTexts({{-1}, {-2}})));
    ASSERT_EQ(Start(0), TARN_OK);
    ASSERT_TRUE(WaitForFirstStart(m_install));
    EXPECT_EQ(TestLoop::s_ullPeriod, 1800000U);
    EXPECT_EQ(Statistics().ulWeedOutCount, 2U); // by the expiry pass
    const CSecondConnection other(m_install.Database());
    ASSERT_TRUE(other.Run("pragma synchronous = off; pragma journal_mode = off;"
                          "with recursive n(i) as (select 1 union all select i + 1 from n where i < 1000005) "
                          "insert into CT select i, 0, 0, 0, 0, 0, 1000006 - i, 0, '' from n"));
    const auto nBytes = std::filesystem::file_size(m_install.Database());
    TestLoop::s_bFire = true;
    ASSERT_TRUE(WaitFor([&] { return std::filesystem::file_size(m_install.Database()) < nBytes; }));
    EXPECT_TRUE(WaitFor([&] { return other.Number("select count(*) from CT") == 1000005 - 20005; }));
    EXPECT_EQ(other.Number("select min(TS) from CT"), 20006);
    EXPECT_EQ(Statistics().ulWeedOutCount, 2U + 20005U);
}

TEST_F(Cleaning, DamagedPagesAreFoundAndCostNoMoreThanTheirRecords) {
    const std::string strFile = File("file");
    ASSERT_EQ(Start(), TARN_OK);
    EXPECT_EQ(m_pAgent->CheckDBIntegrity(), 1);
    Write(strFile);
    const int iPage = std::stoi(Query("select rootpage from sqlite_master where name = 'sqlite_autoindex_CT_1'"));
    Stop();
    std::fstream(m_install.Database(), std::ios::in | std::ios::out).seekp((iPage - 1) * 4096)
        << std::string(4096, '?');
    ASSERT_EQ(Start(), TARN_OK);
    EXPECT_EQ(m_pAgent->CheckDBIntegrity(), 0);
    EXPECT_EQ(Lookup(strFile), TARN_NOT_CACHED);
    Write(strFile);
    EXPECT_EQ(RecordedLog::Texts(2), Texts{"[DoBatchWriteJobs]InsertRecord failed with error code = 11"});
    EXPECT_EQ(m_pAgent->AdjustDBToActualSize(), 0);
}
