// What fills the queues, what wakes the writer, and which queue it writes first.
#include "tests/agent_fixture.h"

namespace {
std::atomic<bool> g_bLongWaits = false;              // only a signal ends the writer's waits for work
std::atomic<pthread_cond_t *> g_pWorkCond = nullptr; // the condition of the first of them
std::atomic<int> g_nWorkWaits = 0;
std::atomic<int> g_nPauses = 0; // waits for anything else
} // namespace

extern "C" int pthread_cond_timedwait(pthread_cond_t *pCond, pthread_mutex_t *pMutex, const timespec *pDeadline) {
    using Function = int (*)(pthread_cond_t *, pthread_mutex_t *, const timespec *);
    static const auto pWait = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "pthread_cond_timedwait"));
    timespec deadline = *pDeadline;
    if (pthread_cond_t *pFirst = nullptr; g_bLongWaits) {
        const bool bForWork = g_pWorkCond.compare_exchange_strong(pFirst, pCond) || pFirst == pCond;
        ++(bForWork ? g_nWorkWaits : g_nPauses);
        deadline.tv_sec += bForWork ? 86400 : 0;
    }
    return pWait(pCond, pMutex, &deadline);
}

class Queues : public CAgentTest {
  protected:
    Queues() { g_bLongWaits = false; }
    uint32_t Add(int iFile, _SCAN_FILE_RESULT verdict = Verdict(1)) {
        return m_pAgent->CacheAddStat(Path(iFile).c_str(), m_status, "", &verdict);
    }
    uint32_t Lookup(int iFile) { return m_pAgent->CacheLookupStat(Path(iFile).c_str(), m_status, m_szMD5, &m_found); }
    static std::string Path(int iFile) { return "/" + std::to_string(iFile); }
    // As many additions as fill the hit map once they are looked up.
    void AddFiles() {
        for (int i = 0; i < 20000; ++i) {
            EXPECT_EQ(Add(i), TARN_OK);
        }
        m_pAgent->RunWritePass(false);
        EXPECT_EQ(RowsOfEngine(1), 20000);
    }
    const struct stat m_status = StatusOf(m_install.Config());
};

TEST_F(Queues, FullQueuesAreWrittenBeforeHalfFullOnes) {
    ASSERT_EQ(Start(), TARN_OK);
    AddFiles();
    const auto pass = [&](int nHits, int nAdds, int iEngine) {
        for (int i = 0; i < nHits; ++i) {
            EXPECT_EQ(Lookup(i), TARN_OK);
        }
        for (int i = 0; i < nAdds; ++i) {
            EXPECT_EQ(Add(i, Verdict(iEngine)), TARN_OK);
        }
        m_pAgent->RunWritePass(false);
        return RowsOfEngine(iEngine);
    };
    EXPECT_EQ(pass(19999, 1, 2), 1); // neither is full: both are written, hits after additions
    EXPECT_EQ(Rows("QC = 1"), 19999);
    EXPECT_EQ(pass(20000, 9999, 3), 0); // one short of full waits behind the full hit map
    EXPECT_EQ(Rows("QC = 2"), 19999);
    EXPECT_EQ(pass(0, 0, 3), 9999);
    EXPECT_EQ(pass(20000, 10000, 4), 10000);
    EXPECT_EQ(Rows("QC > 0"), 20000);
    EXPECT_EQ(Statistics().ulHitCount, 59999U);
    EXPECT_EQ(Statistics().ulAddedCount, 40000U);
}

TEST_F(Queues, FullQueuesAnUrgentFileStatisticsAndShutDownWakeTheWriter) {
    ASSERT_EQ(Start(), TARN_OK);
    AddFiles();
    g_bLongWaits = true;
    g_pWorkCond = nullptr;
    g_nWorkWaits = g_nPauses = 0;
    TestLoop::s_iDueCallbacks = 1; // the writer goes on at once
    ASSERT_EQ(Start(0), TARN_OK);
    const auto wakes = [this](int nWaits, const std::string &strWhere, int64_t liRows, const auto &act) {
        ASSERT_FALSE(HasFailure()); // each wait of its own would take a minute
        ASSERT_TRUE(WaitFor([&] { return g_nWorkWaits == nWaits; })) << strWhere;
        act();
        EXPECT_TRUE(WaitFor([&] { return Rows(strWhere) == liRows; })) << strWhere;
    };
    wakes(1, "QC = 1", 20000, [&] {
        for (int i = 0; i < 20000; ++i) {
            EXPECT_EQ(Lookup(i), TARN_OK);
        }
    });
    wakes(2, "QC = 0", 1, [&] {
        for (int i = 0; i < 10000; ++i) {
            EXPECT_EQ(Add(0), TARN_OK);
        }
    });
    wakes(3, "FTV & 0x100", 1, [&] { EXPECT_EQ(Add(1, Verdict(1, 0x100)), TARN_OK); });
    wakes(4, "FTV & 4", 1, [&] {
        EXPECT_EQ(g_nPauses, 0);
        TestLoop::s_iDueCallbacks = 0;
        EXPECT_EQ(Add(2, Verdict(1, 4)), TARN_OK); // wakes nobody
        (void)Statistics();
    });
    wakes(5, "FTV & 4", 1, [] { EXPECT_EQ(g_nPauses, 1); });
    ASSERT_EQ(Add(20000), TARN_OK);
    ASSERT_EQ(Lookup(0), TARN_OK);
    EXPECT_EQ(Stop(), TARN_OK);
    EXPECT_EQ(Rows(), 20001);
    EXPECT_EQ(Rows("QC = 1"), 19998);
}
