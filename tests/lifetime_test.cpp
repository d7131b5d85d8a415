// Start-up and shut-down: what is logged, what makes a start fail, and what survives it.
#include "tests/agent_fixture.h"

#include <cerrno>
#include <sys/statfs.h>

namespace fs = std::filesystem;

namespace {
std::atomic<int64_t> g_liFreeMegabytes = 1000000; // below 0: statfs fails
}

extern "C" int statfs(const char *, struct statfs *pFileSystem) noexcept {
    pFileSystem->f_bsize = 1 << 20; // f_bavail stays 0: what is reserved for the superuser counts as free
    pFileSystem->f_bfree = g_liFreeMegabytes < 0 ? 0 : static_cast<uint64_t>(g_liFreeMegabytes);
    return g_liFreeMegabytes < 0 ? -1 : 0;
}

class Lifetime : public CAgentTest {
  protected:
    ~Lifetime() override { g_liFreeMegabytes = 1000000; }
    bool IsSet(const std::string &strLine) {
        return ("\n" + ReadWholeFile(m_install.Config())).find("\n" + strLine + "\n") != std::string::npos;
    }
};

TEST_F(Lifetime, AStartLogsEachStepInOrder) {
    ASSERT_EQ(Start(), TARN_OK);
    sqlite3_stmt *pForgotten = nullptr; // holds a lock of the database until it is finalized
    ASSERT_EQ(sqlite3_prepare_v2(g_pLibrary, "select * from sqlite_master", -1, &pForgotten, nullptr), SQLITE_OK);
    ASSERT_EQ(sqlite3_step(pForgotten), SQLITE_ROW);
    EXPECT_EQ(Stop(), TARN_OK); // a clean shut-down has nothing to say
    EXPECT_TRUE(Run("begin exclusive"));
    const Texts vecExpected = {"[AgentInit][cache] read db config success.",
                               "[AgentInit][cache] disk have free space for db.", "[AgentInit][cache] open db success.",
                               "[AgentInit][cache] tables init success."};
    EXPECT_EQ(RecordedLog::Texts(3), vecExpected);
    EXPECT_EQ(RecordedLog::Texts().size(), 4U);
}

TEST_F(Lifetime, FailedStartsSayWhy) {
    const std::string strDisk = "[AgentInit][cache] DiskSpace is lower threshold failed.";
    const struct {
        std::string strCause;
        const char *pszSettings = "";
        int64_t liFreeMegabytes = 1;
        std::function<void()> damage = [] {};
    } cases[] = {
        {"[AgentInit][cache] ReadDBConfig failed.", "", 1, [this] { fs::remove(m_install.Config()); }},
        {strDisk, "diskthreshold=100\n", 99},
        {strDisk, "diskthreshold=-1\n", 1000000000}, // nearly 2^64 bytes
        {strDisk, "", -1},
        {"[OpenDB]RebuildDB failed.", "", 1,
         [this] { fs::create_symlink(m_install.Database(), m_install.Database()); }},
        {"[DBTablesInit][cache] Create Table VST failed.", "", 1, [this] { Run("create view VST as select 1"); }},
        {"[OpenDB][cache] sqlite3_exec set cache size failed with error msg = file is not a database", "", 1,
         [this] { m_install.WriteFile("engine/cache/morcache.db", std::string(8192, '?')); }},
    };
    for (const auto &testCase : cases) {
        fs::remove(m_install.Database());
        Configure(testCase.pszSettings);
        g_liFreeMegabytes = testCase.liFreeMegabytes;
        testCase.damage();
        RecordedLog::Clear();
        EXPECT_EQ(Start(0), TARN_E_FAIL) << testCase.strCause << testCase.pszSettings;
        EXPECT_TRUE(RecordedLog::Contains(testCase.strCause)) << testCase.strCause << testCase.pszSettings;
        EXPECT_EQ(RecordedLog::Texts().back().find("[AgentInit][cache] "), 0U);
    }
    EXPECT_EQ(ReadWholeFile(m_install.Database()), std::string(8192, '?')); // nothing is thrown away
    fs::remove(m_install.Database());
    Configure("diskthreshold=100\n");
    g_liFreeMegabytes = 100;
    EXPECT_EQ(Start(), TARN_OK);
}

TEST_F(Lifetime, WhatCannotBeOpenedIsReplacedAndWhatCannotBeRemovedIsLeft) {
    const std::string strPath = m_install.Database();
    ASSERT_EQ(mknod(strPath.c_str(), S_IFSOCK | 0600, 0), 0);
    ASSERT_EQ(Start(), TARN_OK);
    EXPECT_EQ(Rows(), 0);
    EXPECT_EQ(Stop(), TARN_OK);
    EXPECT_EQ(RecordedLog::Texts(2), Texts{});
    fs::remove(strPath);
    fs::create_directories(strPath + "/content");
    ASSERT_EQ(Start(), TARN_OK);
    Write(File("file"));
    EXPECT_TRUE(IsSet("dbname=morcachebak.db"));
    ASSERT_EQ(Start(), TARN_OK); // goes to the saved name at once
    EXPECT_EQ(Lookup(m_install.Path("file")), TARN_OK);
    EXPECT_EQ(RecordedLog::Texts(2),
              Texts{"[RebuildDB]delete file (" + strPath + ") failed with error:Directory not empty"});
}

TEST_F(Lifetime, ATableOfAnotherShapeIsDroppedAlone) {
    TestClock::s_liTime = 1000;
    ASSERT_EQ(Start(), TARN_OK);
    Write(File("file"), Verdict(1, 1, "Some.Virus"));
    ASSERT_TRUE(Run("drop table CT; create table CT(FPH,FAH,FTV,FHMD,FLMD,QC,TS,RS,FFI)"));
    TestClock::s_liTime = 2000;
    ASSERT_EQ(Start(), TARN_OK);
    EXPECT_EQ(Query("select VID || VD from VDT"), "0Some.Virus");
    EXPECT_EQ(Query("select FV || ' ' || VN || ' ' || LDT from VST"), "0 0 1000"); // of the first start
    Write(m_install.Path("file"));
    EXPECT_EQ(Rows(), 1);
}

TEST_F(Lifetime, WithoutAWriterTheCacheAnswersButKeepsNothing) {
    TestLoop::s_iThreadError = EAGAIN;
    for (const int iMode : {0, 1}) {
        EXPECT_EQ(Start(iMode), TARN_OK);
        Write(File("file"));
        EXPECT_EQ(Lookup(m_install.Path("file")), TARN_OK);
        ASSERT_EQ(Add(File("queued"), Verdict(1, 0)), TARN_OK); // freed at the end: the leak checker looks
        EXPECT_EQ(Stop(), TARN_OK);
        EXPECT_EQ(Rows(), 1);
    }
    EXPECT_EQ(RecordedLog::Texts(2), Texts{"[AgentInit][cache] create thread failed, err:11."});
    EXPECT_EQ(ReadWholeFile(m_install.Config()), "[cacheeng]\n");
    ASSERT_EQ(Start(1), TARN_OK);
    const struct stat status = StatusOf(m_install.Config());
    const _SCAN_FILE_RESULT verdict = Verdict(1);
    for (int i = 0; i < 200002; ++i) {
        ASSERT_EQ(m_pAgent->CacheAddStat("/file", status, "", &verdict), i < 200000 ? TARN_OK : TARN_E_FAIL) << i;
    }
    EXPECT_EQ(RecordedLog::Count("[CacheAdd][cache] not queued: 200000 records wait and are not written."), 1U);
}

TEST_F(Lifetime, WithoutATimerTheWriterEndsAfterTheMarkers) {
    ASSERT_EQ(Start(), TARN_OK);
    ASSERT_TRUE(Run(InsertTexts({{1, 48}, {2, 45}})));
    m_install.WriteFile("engine/clean_engine_flag");
    TestLoop::s_bFailTimers = true;
    ASSERT_EQ(Start(0), TARN_OK);
    EXPECT_EQ(m_pAgent->WaitReady(60000), TARN_OK); // it holds nobody up
    EXPECT_EQ(RecordedLog::Texts(1), Texts{"[UpdateRecords]Start timer failed"});
    EXPECT_EQ(Add(File("file")), TARN_OK);
    EXPECT_EQ(Stop(), TARN_OK);
    EXPECT_EQ(Keys(), "2"); // due for expiry; the addition is not written
    EXPECT_EQ(ReadWholeFile(m_install.Config()), "[cacheeng]\n");
    Configure("protect=1\n");
    EXPECT_EQ(Start(0), TARN_E_FAIL);
    EXPECT_EQ(RecordedLog::Count("[UpdateRecords]Start timer failed"), 2U);
}

TEST_F(Lifetime, AWriterThatFailedTakesNoMoreAdditions) {
    TestLoop::s_iDueCallbacks = -1; // throws
    ASSERT_EQ(Start(0), TARN_OK);
    EXPECT_TRUE(WaitFor([this] { return Add(m_install.Config()) == TARN_E_FAIL; }));
}

TEST_F(Lifetime, TheWriterCountsItsStartAndWritesWithinASecond) {
    Configure("expiretime=99999999999\ndbquerycounts=3\n");
    ASSERT_EQ(Start(0), TARN_OK);
    ASSERT_EQ(Add(File("file")), TARN_OK); // wakes nobody
    EXPECT_TRUE(WaitFor([this] { return Rows() == 1; }));
    EXPECT_EQ(Stop(), TARN_OK);
    for (const char *pszLine : {"dbquerycounts=4", "expiretime=99999999999", "dbname=morcache.db"}) {
        EXPECT_TRUE(IsSet(pszLine)) << pszLine;
    }
    EXPECT_EQ(TestLoop::s_ullPeriod, 0U); // stopped
}

TEST_F(Lifetime, AHalfBuiltAgentComesDownSafely) {
    CDataBaseAgent agent;
    cl_timerplus timer = {nullptr};
    CDataBaseAgent::CleanTimerCallback(nullptr);
    CDataBaseAgent::CleanTimerCallback(&timer);
    EXPECT_EQ(CDataBaseAgent::UpdateWorkThread(nullptr), nullptr);
    const std::vector<uint32_t> vecCodes = {agent.DBTablesInit(), agent.CheckModuleVersion(),
                                            agent.BeginTransactoion(TransactionType::Deferred),
                                            agent.CommitTransaction(), agent.AgentUnInit()};
    EXPECT_EQ(vecCodes, (std::vector<uint32_t>{TARN_E_FAIL, 0xFFFFFFFFU, TARN_E_FAIL, TARN_E_FAIL, TARN_OK}));
    EXPECT_EQ(agent.AdjustDBToActualSize() + agent.CheckDBIntegrity(), 2);
    EXPECT_EQ(RecordedLog::Texts(2).size(), 9U); // each names what is missing
}
