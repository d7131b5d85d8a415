// Lookups, additions and the batches that the writer makes of them.
#include "tests/agent_fixture.h"

#include <set>
#include <sys/time.h>
#include <thread>

namespace {
// Added to the time that the writer's waits are reckoned from: with a day added only a signal ends them.
std::atomic<time_t> g_liAhead = 0;
} // namespace

extern "C" __attribute__((visibility("default"))) int gettimeofday(struct timeval *pNow, void *) noexcept {
    timespec now = {};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    *pNow = {now.tv_sec + g_liAhead, now.tv_nsec / 1000};
    return 0;
}

class Batching : public CAgentTest {
  protected:
    Batching() { g_liAhead = 0; }
    int64_t RowsOfEngine(int iEngine) { return Rows("((FTV >> 32) & 0xffff) = " + std::to_string(iEngine)); }
};

TEST_F(Batching, FullQueuesAreWrittenBeforeHalfFullOnes) {
    ASSERT_EQ(Start(), TARN_OK);
    std::set<std::pair<uint32_t, uint32_t>> setKeys;
    Texts vecFiles; // 200 files, every spelling of whose paths counts as a file of its own
    std::string strFolder = m_install.Path("engine/");
    for (int i = 0; vecFiles.size() < 20000; ++i) {
        const std::string strName = std::to_string(i % 200);
        (void)(i < 200 ? File("engine/" + strName) : "");
        strFolder += i >= 200 && i % 200 == 0 ? "./" : "";
        const std::string strFile = strFolder + strName;
        uint32_t aulKey[2] = {};
        ASSERT_EQ(CalcFilePathCrc32(strFile.c_str(), aulKey), 1);
        if (setKeys.emplace(aulKey[0], aulKey[1]).second) {
            vecFiles.push_back(strFile);
            ASSERT_EQ(Add(strFile), TARN_OK);
        }
    }
    const auto pass = [&](size_t nHits, size_t nAdds, int iEngine) {
        for (size_t i = 0; i < nHits; ++i) {
            EXPECT_EQ(Lookup(vecFiles[i]), TARN_OK);
        }
        for (size_t i = 0; i < nAdds; ++i) {
            EXPECT_EQ(Add(vecFiles[i], Verdict(iEngine)), TARN_OK);
        }
        m_pAgent->RunWritePass(false);
        return RowsOfEngine(iEngine);
    };
    EXPECT_EQ(pass(0, 0, 1), 20000);
    EXPECT_EQ(pass(19999, 1, 2), 1); // neither is full: both are written, hits after additions
    EXPECT_EQ(Rows("QC = 1"), 19999);
    EXPECT_EQ(pass(20000, 9999, 3), 0); // one short of full waits behind the full hit map
    EXPECT_EQ(Rows("QC = 2"), 19999);
    EXPECT_EQ(pass(0, 0, 3), 9999);
    EXPECT_EQ(pass(20000, 10000, 4), 10000);
    EXPECT_EQ(Rows("QC > 0"), 20000);
    EXPECT_TRUE(Statistics().ulHitCount == 59999 && Statistics().ulAddedCount == 40000);
}

TEST_F(Batching, AFullQueueAnUrgentFileAndShutDownWakeTheWriter) {
    g_liAhead = 86400;
    ASSERT_EQ(Start(0), TARN_OK);
    const std::string strFile = File("file");
    for (int i = 0; i < 10000; ++i) {
        ASSERT_EQ(Add(strFile), TARN_OK);
    }
    EXPECT_TRUE(WaitFor([this] { return Rows() == 1; }));
    EXPECT_TRUE(WaitFor([this] { return Add(m_install.Path("lib"), Verdict(1, 0x100)) != TARN_OK || Rows() == 2; }));
    ASSERT_EQ(Add(File("last")), TARN_OK);
    ASSERT_EQ(Lookup(strFile), TARN_OK);
    EXPECT_EQ(Stop(), TARN_OK);
    EXPECT_TRUE(Rows() == 3 && Rows("QC = 1") == 1);
}

TEST_F(Batching, ShutDownDuringCompactionWritesWhatIsQueued) {
    std::atomic<int> nVacuums = 0;
    std::atomic<bool> bStopping = false;
    g_onStatement = [&](const std::string &strText) {
        if (strText == "vacuum;" && ++nVacuums == 2) { // the first belongs to the start
            EXPECT_TRUE(WaitFor([&] { return bStopping.load(); }));
        }
    };
    ASSERT_EQ(Start(0), TARN_OK);
    TestLoop::FireTimer();
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
        TestClock::Set(liNow);
        ASSERT_EQ(Lookup(strFile), TARN_OK);
    }
    m_pAgent->RunWritePass(false);
    EXPECT_EQ(Rows("QC = 1 and TS = 2000"), 1);
    ASSERT_EQ(Add(strFile, Verdict(5)), TARN_OK);
    TestClock::Set(4000);
    m_pAgent->RunWritePass(false);
    EXPECT_TRUE(RowsOfEngine(5) == 1 && Rows("QC = 0 and TS = 3000") == 1 && Rows() == 1);
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
    EXPECT_TRUE(Rows() == 3 && Rows("QC = 1") == 1);
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
    std::jthread release([&] { EXPECT_TRUE(WaitFor([&] { return nTries == 2; }) && other.Run("rollback")); });
    EXPECT_EQ(m_pAgent->BeginTransactoion(kImmediate), TARN_OK);
    EXPECT_EQ(m_pAgent->RollbackTransaction(), TARN_OK);
    EXPECT_EQ(m_pAgent->BeginTransactoion(kImmediate), TARN_OK);
    EXPECT_GT(sqlite3_stmt_status(sqlite3_next_stmt(g_pLibrary, nullptr), SQLITE_STMTSTATUS_RUN, 0), 1); // the same one
    EXPECT_EQ(m_pAgent->BeginTransactoion(static_cast<TransactionType>(4)), TARN_E_INVALIDARG);
    EXPECT_EQ(m_pAgent->CommitTransaction(), TARN_OK);
}

TEST_F(Batching, AVerdictComesBackAsItIsStoredUntilTheFileChanges) {
    const std::string strDigest = DigestText(7);
    const struct {
        std::string strMD5, strMD5Back;
        int32_t lEngine, lEngineBack;
        uint32_t ulFlags, ulFlagsBack;
        std::string strDesc = "";
    } cases[] = {
        {strDigest, strDigest, 48, 48, 0x12, 0x12, "Some.Virus"},
        {strDigest, strDigest, 0x12348001, -32767, ~0U, ~0U & ~(1U << 17U)}, // 16 bits of the code, 4 of the state
        {strDigest, strDigest, -1, -1, 1U << 17U, 0, "a'b\n\xff;--"},
        {strDigest, strDigest, 1, 1, 1, 1, std::string(64, 'v')}, // fills its field without an end
        {"ABCDEF0123456789ABCDEF0123456789", "abcdef0123456789abcdef0123456789", 1, 1, 1, 1},
        {std::string(32, 'g'), DigestText(0), 1, 1, 1, 1},
    };
    const std::string strFile = File("file");
    ASSERT_EQ(Start(), TARN_OK);
    for (const auto &testCase : cases) {
        SCOPED_TRACE(&testCase - cases);
        _SCAN_FILE_RESULT verdict = Verdict(testCase.lEngine, testCase.ulFlags, testCase.strDesc);
        ASSERT_EQ(m_pAgent->CacheAdd(strFile.c_str(), testCase.strMD5.c_str(), &verdict), TARN_OK);
        m_pAgent->RunWritePass(false);
        ASSERT_EQ(Lookup(strFile), TARN_OK);
        EXPECT_EQ(int32_t{m_found.lEngineCode}, testCase.lEngineBack);
        EXPECT_EQ(uint32_t{m_found.ulFlags}, testCase.ulFlagsBack);
        EXPECT_EQ(std::string(m_found.szVirusDesc), testCase.strDesc.substr(0, 63));
        EXPECT_EQ(std::string(m_szMD5), testCase.strMD5Back);
    }
    m_install.WriteFile("file", "longer than before");
    EXPECT_EQ(Lookup(strFile), TARN_NOT_CACHED);
    EXPECT_EQ(Rows(), 1); // stays until it is replaced
}

TEST_F(Batching, EveryFileNameIsAnsweredAndRefusalsAreNamed) {
    ASSERT_EQ(Start(), TARN_OK);
    const std::pair<std::string, std::string> cases[] = {
        {File("it's \"quoted\""), ""},
        {File("two\nlines\t%s%n"), ""},
        {File("\xff\xfe\xc3 not UTF-8"), ""},
        {m_install.Path("engine/./cache/"), ""}, // another spelling is another key
        {m_install.Path("vanished"), "][cache] Calc Attr Crc32 failed."},
        {m_install.Path(std::string(4096, 'x')), "][cache] Calc Attr Crc32 failed."},
        {"relative", "][cache] Calc Path Crc32 failed."},
        {"", "][cache] Calc Path Crc32 failed."},
    };
    int64_t liRows = 0;
    for (const auto &[strPath, strLine] : cases) {
        SCOPED_TRACE(strPath);
        EXPECT_EQ(Add(strPath), strLine.empty() ? TARN_OK : TARN_E_FAIL);
        m_pAgent->RunWritePass(false);
        EXPECT_EQ(Lookup(strPath), strLine.empty() ? TARN_OK : TARN_E_FAIL);
        EXPECT_EQ(Rows(), strLine.empty() ? ++liRows : liRows);
        EXPECT_TRUE(strLine.empty() || RecordedLog::Contains("[CacheAdd" + strLine));
        EXPECT_TRUE(strLine.empty() || RecordedLog::Texts().back() == "[CacheLookup" + strLine);
    }
    EXPECT_EQ(Add(cases[0].first, Verdict(1, 1, "one\"quote")), TARN_E_FAIL);
    EXPECT_EQ(RecordedLog::Texts().back(), "[CacheAdd][cache] get virus id from virus desc failed.");
}
