// Waiting for the writer: until its start-up work is done, and until what was queued is on disk or lost.
#include "tests/agent_fixture.h"

namespace {

// Holds the writer at a statement until it is let go. What it shares with the writer outlives the test's own part.
class CHeldWriter {
  public:
    explicit CHeldWriter(const std::string &strStatement) {
        g_onStatement = [strStatement, pLetGo = m_pLetGo](const std::string &strText) {
            if (strText.starts_with(strStatement)) {
                EXPECT_TRUE(WaitFor([&] { return pLetGo->load(); }));
            }
        };
    }
    ~CHeldWriter() { LetGo(); }
    CHeldWriter(const CHeldWriter &) = delete;
    CHeldWriter &operator=(const CHeldWriter &) = delete;
    void LetGo() { *m_pLetGo = true; }

  private:
    std::shared_ptr<std::atomic<bool>> m_pLetGo = std::make_shared<std::atomic<bool>>(false);
};

} // namespace

class HostWaits : public CAgentTest {};

TEST_F(HostWaits, AreReadyOnlyWhenTheMarkersAreDone) {
    ASSERT_EQ(Start(), TARN_OK);
    EXPECT_EQ(m_pAgent->WaitReady(0), TARN_OK); // nobody to wait for
    ASSERT_TRUE(Run(InsertTexts({{1, 48, 9}, {2, 47, 9}})));
    File("engine/clean_engine_flag");
    CHeldWriter held("delete from CT where FTV");
    ASSERT_EQ(Start(0), TARN_OK);
    EXPECT_EQ(m_pAgent->WaitReady(10), TARN_E_TIMEOUT);
    held.LetGo();
    EXPECT_EQ(m_pAgent->WaitReady(60000), TARN_OK);
    EXPECT_TRUE(WaitFor([this] { return Keys() == "2"; })); // the vacuum comes later and locks the file
    File("engine/clean_engine_hash_flag");
    File("engine/kelmorehash/update_cache.dat"); // enciphered with no key of ours
    ASSERT_EQ(Start(0), TARN_OK);
    EXPECT_EQ(m_pAgent->WaitReady(60000), TARN_E_FAIL); // the list stays
}

TEST_F(HostWaits, AFlushWaitsForTheDiskAndCountsWhatIsLost) {
    uint64_t ullLost = 77;
    Configure("protect=1\n");
    ASSERT_EQ(Start(), TARN_OK);
    EXPECT_EQ(m_pAgent->Flush(0, nullptr), TARN_OK); // nothing is queued
    ASSERT_EQ(Add(File("1")), TARN_OK);
    EXPECT_EQ(m_pAgent->Flush(60000, &ullLost), TARN_E_FAIL); // nobody writes
    CHeldWriter held("replace into CT");
    ASSERT_EQ(Start(0), TARN_OK);
    ASSERT_EQ(Add(m_install.Path("1")), TARN_OK);
    EXPECT_EQ(m_pAgent->Flush(10, nullptr), TARN_E_TIMEOUT);
    EXPECT_EQ(Lookup(m_install.Path("1")), TARN_NOT_CACHED); // a lookup does not wait for it
    held.LetGo();
    EXPECT_EQ(m_pAgent->Flush(60000, &ullLost), TARN_OK);
    EXPECT_EQ(Rows(), 1);
    EXPECT_EQ(ullLost, 0U);
    ASSERT_EQ(Lookup(m_install.Path("1")), TARN_OK);
    EXPECT_EQ(m_pAgent->Flush(60000, nullptr), TARN_OK);
    EXPECT_EQ(Rows("QC = 1"), 1); // noted hits too
    ASSERT_TRUE(Run("create trigger T before insert on CT when (select count(*) from CT) > 1 "
                    "begin select raise(fail, 'no'); end"));
    for (const char *pszFile : {"2", "3", "4"}) {
        ASSERT_EQ(Add(File(pszFile)), TARN_OK);
    }
    EXPECT_EQ(m_pAgent->Flush(60000, &ullLost), TARN_OK);
    EXPECT_EQ(ullLost, static_cast<uint64_t>(5 - 1 - Rows())); // all that were added and are not there
    EXPECT_GT(ullLost, 0U);
}
