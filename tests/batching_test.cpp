// Lookups, additions and the batches that the writer makes of them.
#include "tests/agent_fixture.h"

#include <thread>

using Batching = CAgentTest;

TEST_F(Batching, ShutDownDuringCompactionWritesWhatIsQueued) {
    std::atomic<int> nVacuums = 0;
    std::atomic<bool> bStopping = false;
    g_onStatement = [&](const std::string &strText) {
        if (strText == "vacuum;" && ++nVacuums == 2) { // the first belongs to the start
            EXPECT_TRUE(WaitFor([&] { return bStopping.load(); }));
        }
    };
    ASSERT_EQ(Start(0), TARN_OK);
    TestLoop::s_bFire = true;
    ASSERT_TRUE(WaitFor([&] { return nVacuums == 2; }));
    ASSERT_EQ(Add(File("file")), TARN_OK); // without a description it needs no database
    g_onJoin = [&] { bStopping = true; };
    EXPECT_EQ(Stop(), TARN_OK);
    EXPECT_EQ(Rows(), 1);
}

TEST_F(Batching, TheFirstHitOfAPassCountsAndANewVerdictStartsAfresh) {
    const std::string strFile = File("file");
    ASSERT_EQ(Start(), TARN_OK);
    Write(strFile);
    for (const int64_t liNow : {2000, 3000}) {
        TestClock::s_liTime = liNow;
        ASSERT_EQ(Lookup(strFile), TARN_OK);
    }
    m_pAgent->RunWritePass(false);
    EXPECT_EQ(Rows("QC = 1 and TS = 2000"), 1);
    ASSERT_EQ(Add(strFile, Verdict(5)), TARN_OK);
    TestClock::s_liTime = 4000;
    m_pAgent->RunWritePass(false);
    EXPECT_EQ(Rows(), 1);
    EXPECT_EQ(RowsOfEngine(5), 1);
    EXPECT_EQ(Rows("QC = 0 and TS = 3000"), 1);
}

TEST_F(Batching, AFailedInsertKeepsWhatCameBeforeItAndTheHits) {
    ASSERT_EQ(Start(), TARN_OK);
    Write(File("file"));
    ASSERT_TRUE(Run("create trigger T before insert on CT when (select count(*) from CT) > 2 "
                    "begin select raise(fail, 'no'); end"));
    ASSERT_EQ(Lookup(m_install.Path("file")), TARN_OK);
    for (const char *pszFile : {"1", "2", "3", "4"}) {
        ASSERT_EQ(Add(File(pszFile)), TARN_OK);
    }
    m_pAgent->RunWritePass(false);
    EXPECT_EQ(RecordedLog::Texts(2), Texts{"[DoBatchWriteJobs]InsertRecord failed with error code = 19"});
    EXPECT_EQ(Statistics().ulAddedCount, 3U);
    EXPECT_EQ(Rows(), 3);
    EXPECT_EQ(Rows("QC = 1"), 1);
}

TEST_F(Batching, AFailedBeginOrCommitDropsTheBatchAndTheNextOneWorks) {
    ASSERT_EQ(Start(), TARN_OK);
    const CSecondConnection reader(m_install.Database()); // no commit while it reads
    for (const bool bBegin : {true, false}) {
        if (bBegin) { // no transaction begins inside another
            ASSERT_EQ(m_pAgent->BeginTransactoion(TransactionType::Deferred), TARN_OK);
        } else {
            ASSERT_TRUE(reader.Run("begin; select * from CT"));
        }
        Write(File("dropped"));
        EXPECT_EQ(sqlite3_get_autocommit(g_pLibrary), 1); // rolled back
        EXPECT_EQ(reader.Run("rollback"), !bBegin);
        EXPECT_EQ(Rows(), 0);
        Write(File("kept"));
        EXPECT_EQ(Rows(), 1);
        ASSERT_EQ(m_pAgent->DeleteAllRecords(), TARN_OK);
    }
}

TEST_F(Batching, ABusyDatabaseIsTriedOnceMoreAndABeginStatementIsKeptForItsType) {
    constexpr auto kImmediate = TransactionType::Immediate;
    std::atomic<size_t> nTries = 0;
    g_onStatement = [&](const std::string &strText) { nTries += strText == "begin immediate;" ? 1U : 0U; };
    ASSERT_EQ(Start(), TARN_OK);
    const CSecondConnection other(m_install.Database());
    ASSERT_TRUE(other.Run("begin immediate"));
    std::jthread release([&] {
        EXPECT_TRUE(WaitFor([&] { return nTries == 2; }));
        EXPECT_TRUE(other.Run("rollback"));
    });
    EXPECT_EQ(m_pAgent->BeginTransactoion(kImmediate), TARN_OK);
    EXPECT_EQ(m_pAgent->RollbackTransaction(), TARN_OK);
    EXPECT_EQ(m_pAgent->BeginTransactoion(kImmediate), TARN_OK);
    EXPECT_GT(sqlite3_stmt_status(sqlite3_next_stmt(g_pLibrary, nullptr), SQLITE_STMTSTATUS_RUN, 0), 1); // the same one
    EXPECT_EQ(m_pAgent->BeginTransactoion(static_cast<TransactionType>(4)), TARN_E_INVALIDARG);
    EXPECT_EQ(m_pAgent->CommitTransaction(), TARN_OK);
}

// One after the other, the hits alone would take a minute and a half.
TEST_F(Batching, WhatAnotherProcessHoldsIsKeptInOrderAndWaitedForOnce) {
    Configure("protect=1\n");
    ASSERT_EQ(Start(), TARN_OK);
    const CSecondConnection other(m_install.Database());
    for (int iEngine = 2; iEngine < 4; ++iEngine) {
        for (int i = 0; i < 120; ++i) {
            const std::string strFile = m_install.Path(std::to_string(i % 60));
            i < 60 ? Write(File(strFile)) : (void)Lookup(strFile);
        }
        ASSERT_TRUE(other.Run(iEngine == 2 ? "begin exclusive" : "begin; select * from CT"));
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(m_pAgent->DeleteByPath(m_install.Path("1").c_str()), TARN_E_FAIL);
        for (const int iAdded : {99, iEngine}) {
            EXPECT_EQ(Add(m_install.Path("0"), Verdict(iAdded)), TARN_OK);
            m_pAgent->RunWritePass(false);
        }
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20)) << iEngine;
        ASSERT_TRUE(other.Run("rollback"));
        m_pAgent->RunWritePass(false);
        EXPECT_EQ(RowsOfEngine(iEngine), 1); // the later addition won
        EXPECT_EQ(Rows("QC > 0"), 60) << iEngine;
    }
    EXPECT_EQ(Statistics().ulAddedCount, 124U);
}

TEST_F(Batching, EveryFileNameIsAnsweredAndRefusalsAreNamed) {
    ASSERT_EQ(Start(), TARN_OK);
    const Texts vecFiles = {File("it's \"quoted\""), File("two\nlines\t%s%n"), File("\xff\xfe\xc3 not UTF-8"),
                            m_install.Path("engine/./kelmorehash/")}; // another spelling is another key
    int64_t liRows = 0;
    for (const std::string &strPath : vecFiles) {
        Write(strPath);
        EXPECT_EQ(Lookup(strPath), TARN_OK) << strPath;
        EXPECT_EQ(Rows(), ++liRows) << strPath;
    }
    const std::pair<std::string, std::string> cases[] = {{m_install.Path("vanished"), "Attr"},
                                                         {m_install.Path(std::string(4096, 'x')), "Attr"},
                                                         {"relative", "Path"},
                                                         {"", "Path"}};
    for (const auto &[strPath, strHash] : cases) {
        EXPECT_EQ(Add(strPath), TARN_E_FAIL) << strPath;
        EXPECT_EQ(RecordedLog::Texts().back(), "[CacheAdd][cache] Calc " + strHash + " Crc32 failed.") << strPath;
        EXPECT_EQ(Lookup(strPath), TARN_E_FAIL) << strPath;
        EXPECT_EQ(RecordedLog::Texts().back(), "[CacheLookup][cache] Calc " + strHash + " Crc32 failed.") << strPath;
    }
    ASSERT_TRUE(Run("insert into VDT values(32767,'last'),(32768,'beyond')"));
    EXPECT_EQ(Add(vecFiles[0], Verdict(1, 1, "last")), TARN_OK);
    EXPECT_EQ(Add(vecFiles[0], Verdict(1, 1, "beyond")), TARN_E_FAIL);
    EXPECT_EQ(RecordedLog::Texts().back(), "[CacheAdd][cache] get virus id from virus desc failed.");
}
