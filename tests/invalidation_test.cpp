// Marker files and the update-cache file: what they delete, and when they stay.
#include "tests/agent_fixture.h"

#include <unistd.h>

namespace fs = std::filesystem;

namespace {
std::function<void()> g_onYield;     // the list's reader yields after each digest
std::atomic<uint64_t> g_ullRead = 0; // bytes asked for in requests of 60 KB and more
} // namespace

extern "C" size_t fread(void *pBuffer, size_t nSize, size_t nCount, FILE *pFile) {
    static const auto pRead = reinterpret_cast<decltype(&fread)>(dlsym(RTLD_NEXT, "fread"));
    g_ullRead += nSize * nCount >= 60000 ? nSize * nCount : 0;
    return pRead(pBuffer, nSize, nCount, pFile);
}

extern "C" unsigned int sleep(unsigned int) {
    if (g_onYield) {
        g_onYield();
    }
    return 0;
}

class Invalidation : public CAgentTest {
  protected:
    Invalidation() { g_onYield = nullptr; }
    // Rows with the keys and digests from 1 to nRows, and one without a digest; the list names them all.
    void StartWithRows(int nRows, const std::string &strBehind = "") {
        ASSERT_EQ(Start(), TARN_OK);
        std::vector<_Row> vecRows = {{0}};
        std::string strList = "engine:1.2\n";
        for (int i = 1; i <= nRows; ++i) {
            vecRows.push_back({i, 45, 0, 0, i});
            strList += DigestText(i) + "\n";
        }
        ASSERT_TRUE(Run(InsertTexts(vecRows)));
        LeaveList(m_install, strList + strBehind);
    }
    void WatchBatches() {
        g_onStatement = [this](const std::string &strText) {
            m_nDeletions = strText == "begin immediate;" ? 0 : m_nDeletions + (strText.starts_with("delete") ? 1 : 0);
            if (strText == "commit;" || strText == "rollback;") {
                m_vecBatches.push_back(std::to_string(m_nDeletions) + " " + strText);
            }
        };
    }
    bool HasMarker() const { return Exists(m_install.Path("engine/clean_engine_hash_flag")); }

    const std::string m_strList = m_install.Path("engine/kelmorehash/update_cache.dat");
    const std::string m_strMarker = m_install.Path("engine/clean_engine_flag");
    int m_nDeletions = 0;
    Texts m_vecBatches;
};

TEST_F(Invalidation, AFlagDeletesTheRecordsOfItsEngines) {
    ASSERT_EQ(Start(), TARN_OK);
    const std::pair<int32_t, EngineSet> cases[] = {
        {0x2, {43}},   {0x4, {44}},    {0x8, {45}},     {0x20, {48}},        {0x100, {49}},
        {0x200, {47}}, {0x1000, {46}}, {0x10000, {50}}, {0x10002, {43, 50}}, {~0x1000, {43, 44, 45, 47, 48, 49, 50}},
        {1, {}},       {0, {}},        {-1, {}}};
    for (const auto &[lFlag, expected] : cases) {
        SCOPED_TRACE(lFlag);
        EngineSet engines = {1};
        m_pAgent->GetEngineListByFlag(lFlag, engines);
        EXPECT_EQ(engines, expected);
        ASSERT_TRUE(
            Run(InsertTexts({{1, 42}, {2, 43}, {3, 44}, {4, 45}, {5, 46}, {6, 47}, {7, 48}, {8, 49}, {9, 50}})));
        EXPECT_EQ(m_pAgent->CheckDeleteAllCacheRecordsByFlag(lFlag), TARN_OK);
        EXPECT_EQ(Rows(), lFlag == -1 ? 0 : 9 - static_cast<int64_t>(expected.size()));
    }
}

TEST_F(Invalidation, AMarkerOfAnyKindIsConsumedOnceEvenWhenTheDeletionFails) {
    ASSERT_EQ(Start(), TARN_OK);
    for (const std::string strKind : {"file", "folder", "failure", "full folder"}) {
        ASSERT_TRUE(Run(InsertTexts({{1, 48}, {2, 45}})));
        if (strKind == "failure") {
            ASSERT_TRUE(Run("create trigger T before delete on CT begin select raise(fail, 'no'); end"));
        }
        if (strKind == "file") {
            File("engine/clean_engine_flag");
        } else {
            fs::create_directories(m_strMarker + (strKind == "full folder" ? "/content" : ""));
        }
        EXPECT_EQ(m_pAgent->CheckDeleteAllCacheRecords(), TARN_OK);
        EXPECT_EQ(Rows(), strKind == "failure" ? 2 : 1) << strKind;
        EXPECT_EQ(Exists(m_strMarker), strKind == "full folder"); // which cannot be removed, silently
        ASSERT_TRUE(Run("drop trigger if exists T"));
    }
    fs::remove_all(m_strMarker);
    EXPECT_EQ(m_pAgent->CheckDeleteAllCacheRecords(), TARN_E_FAIL); // no marker, no work
    EXPECT_TRUE(
        RecordedLog::Contains("[CheckDeleteAllCacheRecordsByFlag]BatchDeleteRecordsByEngineIds failed, engine cnt=1"));
    File("engine/kelmorehash/update_cache.dat");
    EXPECT_TRUE(m_pAgent->ResetCleanCacheFlag("clean_engine_hash_flag"));
    EXPECT_FALSE(Exists(m_strList)); // goes without a marker too
}

TEST_F(Invalidation, EachListIsAppliedOrLeftAsItsTextDeserves) {
    const std::string strOne = DigestText(1);
    const std::string strTwo = DigestText(2);
    const std::tuple<uint32_t, int64_t, std::string> cases[] = {
        {TARN_OK, 2, "engine:1.3\r\n\r\n" + strOne + "\r\n\n\n" + strTwo},
        {TARN_OK, 1, "e:1\n" + strOne.substr(1) + "\n" + strTwo + "12345678\n"},
        {TARN_OK, 0, "e:1\n" + strOne.substr(1) + "\r\n" + std::string(32, 'g') + "\n" + std::string(32, ' ')},
        {TARN_OK, 1, "e:" + std::string(256, '1') + "\n0123456\n" + strOne}, // 300 bytes
        {TARN_OK, 1, "e:1\n" + strOne + "\n" + std::string(1, '\0') + "\n" + strTwo},
        {TARN_E_INVALIDARG, 0, strOne + "\n" + strTwo + "\n"},
        {TARN_E_INVALIDARG, 0, "engine\n:\n" + strOne + "\n"},
        {TARN_E_INVALIDARG, 0, "engine:1.2\n\n\n"},
        {TARN_E_INVALIDARG, 0, "engine:1.2"},
        {TARN_E_INVALIDARG, 0, std::string(300, '\0')},
        {TARN_E_INVALIDARG, 0, Encipher("engine:1.2\n" + strOne)}, // not with this key
        {TARN_E_FAIL, 0, ""},
        {TARN_OK, 1, "e:" + std::string(150, '9') + "\r\n" + std::string(31, '0') + "A"},
    };
    RecordedLog::SetDebug(true);
    for (const auto &[ulResult, liDeleted, strText] : cases) {
        SCOPED_TRACE(strText);
        StartWithRows(10);
        LeaveList(m_install, strText);
        EXPECT_EQ(m_pAgent->DeleteCacheRecordsByFileMD5(), ulResult);
        EXPECT_EQ(Rows(), 11 - liDeleted);
        EXPECT_EQ(m_pAgent->CheckDeleteFrepCacheRecords(), ulResult == TARN_OK ? TARN_OK : TARN_E_FAIL);
        EXPECT_EQ(HasMarker(), ulResult != TARN_OK);
        EXPECT_EQ(Exists(m_strList), ulResult != TARN_OK);
    }
    const std::string strOpened = "[DeleteCacheRecordsByFileMD5]Open file " + m_strList + " and get VersionID = ";
    EXPECT_TRUE(RecordedLog::Contains(strOpened + "1.3"));
    EXPECT_TRUE(RecordedLog::Contains(strOpened + std::string(99, '9')));
}

TEST_F(Invalidation, WhatIsNoReadableListIsLeftOrRemovedByName) {
    StartWithRows(1);
    const std::string strFailed = "[CheckDeleteFrepCacheRecords]DeleteCacheRecordsByFileMD5 failed with hr = 0x8";
    const std::pair<std::function<int()>, std::string> cases[] = {
        {[] { return 0; }, strFailed + "0004005"},
        {[this] { return mkdir(m_strList.c_str(), 0700); }, strFailed + "0070057"},
        {[this] { return mkfifo(m_strList.c_str(), 0600); }, strFailed + "0004005"},
        {[this] { return truncate(File("engine/kelmorehash/update_cache.dat").c_str(), 1L << 32); },
         strFailed + "0004005"}, // a byte too long
        {[this] { return mknod(m_strList.c_str(), S_IFSOCK | 0600, 0); },
         "[DeleteCacheRecordsByFileMD5]fopen " + m_strList + " failed"},
    };
    for (const auto &[place, strLine] : cases) {
        LeaveList(m_install, "");
        fs::remove(m_strList);
        ASSERT_EQ(place(), 0);
        const bool bStays = strLine.starts_with(strFailed);
        EXPECT_EQ(m_pAgent->CheckDeleteFrepCacheRecords(), bStays ? TARN_E_FAIL : TARN_OK);
        EXPECT_EQ(RecordedLog::Texts(2).back(), strLine);
        EXPECT_EQ(HasMarker(), bStays); // what cannot even be opened counts as done
        fs::remove(m_strList);
    }
}

TEST_F(Invalidation, ALongListIsCutIntoBatchesAndAFailedOneIsRolledBackAlone) {
    WatchBatches();
    StartWithRows(2500);
    ASSERT_TRUE(Run("create trigger T before delete on CT when old.FPH = 1500 begin select raise(fail, 'no'); end"));
    EXPECT_EQ(m_pAgent->CheckDeleteFrepCacheRecords(), TARN_OK); // a batch is not tried again
    EXPECT_EQ(m_vecBatches, (Texts{"1000 commit;", "500 rollback;", "500 commit;"}));
    m_vecBatches.clear();
    EXPECT_EQ(Rows(), 1001);
    EXPECT_EQ(Rows("FPH between 1001 and 2000"), 1000);
    EXPECT_FALSE(HasMarker());
    EXPECT_EQ(RecordedLog::Texts(2).back().find("[BatchDeleteCacheRecordsByFileMD5]DeleteRecordByMD5 failed, HMD5:0"),
              0U);
    const CSecondConnection reader(m_install.Database()); // no commit while it reads
    ASSERT_TRUE(reader.Run("drop trigger T; begin; select * from CT"));
    LeaveList(m_install, "e:1\n" + DigestText(1500));
    EXPECT_EQ(m_pAgent->CheckDeleteFrepCacheRecords(), TARN_OK);
    EXPECT_EQ(m_vecBatches, (Texts{"1 commit;", "1 commit;", "1 rollback;"})); // tried once more
}

TEST_F(Invalidation, ShutDownEndsTheReadingKeepsTheListAndDeletesWhatWasRead) {
    StartWithRows(1500, std::string(1 << 20, 'x')); // a long line behind the digests
    std::atomic<int> nRead = 0;
    std::atomic<bool> bStopping = false;
    g_onYield = [&] {
        if (++nRead == 1500) {
            EXPECT_TRUE(WaitFor([&] { return bStopping.load(); }));
        }
    };
    Configure("expiretime=99999999999\n");
    WatchBatches();
    ASSERT_EQ(Start(0), TARN_OK);
    ASSERT_TRUE(WaitFor([&] { return nRead == 1500; }));
    g_ullRead = 0;
    g_onJoin = [&] { bStopping = true; };
    EXPECT_EQ(Stop(), TARN_OK);
    EXPECT_EQ(g_ullRead, 0U); // nothing more
    m_vecBatches.resize(2);   // later ones belong to the end
    EXPECT_EQ(m_vecBatches, (Texts{"1000 commit;", "500 commit;"}));
    EXPECT_EQ(Rows(), 1);
    EXPECT_TRUE(HasMarker());
    EXPECT_TRUE(Exists(m_strList));
    EXPECT_EQ(RecordedLog::Texts(2).back(),
              "[CheckDeleteFrepCacheRecords]DeleteCacheRecordsByFileMD5 failed with hr = 0x80004004");
}
