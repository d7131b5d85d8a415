// What hosts ask of a running cache beyond lookup and add.
#include "tests/cache_fixture.h"

namespace fs = std::filesystem;

class HostWords : public CCacheTest {
  protected:
    // Starts with these files remembered: engine 1 or 2 by turns, digest 7 or 8 by turns, and described ones.
    void StartWith(int nFiles) {
        Start();
        for (int i = 0; i < nFiles; ++i) {
            Remember(m_install.WriteFile(std::to_string(i)), Verdict(1 + i % 2, 1, i % 3 == 0 ? "Name" : ""),
                     DigestText(7 + i % 2));
        }
    }
    static uint64_t Count(int iDigest) {
        uint64_t ullCount = 77;
        EXPECT_EQ(LocalCacheCountByFileHash(DigestText(iDigest).c_str(), &ullCount), TARN_OK);
        return ullCount;
    }
    Texts Findings() {
        Texts vecFindings;
        const auto note = [](const char *pszText, void *pTexts) {
            static_cast<Texts *>(pTexts)->emplace_back(pszText);
        };
        const uint32_t ulResult = LocalCacheCheck(note, &vecFindings);
        EXPECT_EQ(ulResult, vecFindings.empty() ? TARN_OK : TARN_E_FAIL);
        return vecFindings;
    }
};

TEST_F(HostWords, DeletionsTakeWhatTheyNameAndNothingElse) {
    StartWith(6);
    EXPECT_EQ(Count(7), 3U);
    EXPECT_EQ(Count(9), 0U);
    EXPECT_EQ(LocalCacheDeleteByPath(m_install.Path("0").c_str()), TARN_OK);
    EXPECT_EQ(LocalCacheDeleteByPath(m_install.Path("none").c_str()), TARN_OK);
    EXPECT_EQ(Count(7), 2U);
    EXPECT_EQ(LocalCacheDeleteByEngine(0x10002), TARN_OK); // the low 16 bits
    EXPECT_EQ(Count(8), 0U);
    Remember(m_install.Path("1"), Verdict(-3), DigestText(9));
    EXPECT_EQ(LocalCacheDeleteByEngine(-3), TARN_OK);
    EXPECT_EQ(Count(9), 0U);
    EXPECT_EQ(Info().ullRecords, 2U);
    EXPECT_EQ(LocalCacheTrim(), TARN_OK);
    EXPECT_EQ(Info().ullRecords, 2U); // far below the cap
    EXPECT_EQ(LocalCacheClear(), TARN_OK);
    EXPECT_EQ(Info().ullRecords, 0U);
    const CSecondConnection other(m_install.Database());
    ASSERT_TRUE(other.Run("begin exclusive"));
    EXPECT_EQ((Codes{LocalCacheDeleteByPath("/1"), LocalCacheDeleteByEngine(1), LocalCacheClear()}),
              Codes(3, TARN_E_FAIL));
}

TEST_F(HostWords, EnumerationShowsEveryRecordOnceAndLetsOthersWork) {
    StartWith(0);
    ASSERT_TRUE(Run("with recursive n(i) as (select 1 union all select i + 1 from n where i < 1200) "
                    "insert into CT select i * 7, 5, (3 << 32) | 0x2001 | (-1 << 48), 0, 0, 2, 99, 1, '/ab' from n;"
                    "insert into CT select column1, 0, 0, 0, 0, 0, 0, 0, '' "
                    "from (values(-1 << 63), (~(-1 << 63)), ('no key'))"));
    std::vector<_LOCAL_CACHE_RECORD> vecSeen;
    const auto note = [](const _LOCAL_CACHE_RECORD *pRecord, void *pSeen) {
        auto &vecRecords = *static_cast<std::vector<_LOCAL_CACHE_RECORD> *>(pSeen);
        vecRecords.push_back(*pRecord);
        EXPECT_EQ(LocalCacheDeleteByEngine(99), TARN_OK); // no lock is held
        return vecRecords.size() == 1300 ? 1 : 0;
    };
    EXPECT_EQ(LocalCacheEnumerate(note, &vecSeen), TARN_OK);
    ASSERT_EQ(vecSeen.size(), 1202U);
    EXPECT_EQ(vecSeen.front().liPathHash, INT64_MIN);
    EXPECT_EQ(vecSeen.back().liPathHash, INT64_MAX);
    const _LOCAL_CACHE_RECORD &record = vecSeen[600];
    EXPECT_EQ(record.lEngineCode, 3);
    EXPECT_EQ(record.ulFlags, 0x2001U);
    EXPECT_EQ(record.ulQueryCount, 2U);
    EXPECT_EQ(record.liTimeStamp, 99);
    EXPECT_STREQ(record.szPathIndex, "/ab");
    vecSeen.resize(1299);
    EXPECT_EQ(LocalCacheEnumerate(note, &vecSeen), TARN_OK);
    EXPECT_EQ(vecSeen.size(), 1300U); // ended early
}

TEST_F(HostWords, PeekAndExplanationTellWhyALookupWouldNotAnswer) {
    StartWith(4);
    const auto expectState = [this](const std::string &strName, uint32_t ulPeek, uint32_t ulReason) {
        SCOPED_TRACE(strName);
        std::string strMD5(TARN_MD5_TEXT_SIZE - 1, '#');
        uint32_t ulState = 77;
        m_found = {};
        EXPECT_EQ(LocalCachePeek(m_install.Path(strName).c_str(), strMD5.data(), &m_found, &ulState), TARN_OK);
        EXPECT_EQ(ulState, ulPeek);
        EXPECT_EQ(strMD5, ulPeek == TARN_PEEK_UNKNOWN ? std::string(32, '#') : DigestText(8));
        EXPECT_STREQ(m_found.szVirusDesc, ulPeek == TARN_PEEK_UNKNOWN ? "" : "Name");
        EXPECT_EQ(Reason(m_install.Path(strName)), ulReason);
    };
    expectState("3", TARN_PEEK_KNOWN, TARN_WHY_KNOWN);
    expectState("lib", TARN_PEEK_UNKNOWN, TARN_WHY_UNKNOWN);
    expectState("none", TARN_PEEK_UNKNOWN, TARN_WHY_UNKNOWN);
    m_install.WriteFile("3", "longer than before");
    expectState("3", TARN_PEEK_CHANGED, TARN_WHY_CHANGED);
    fs::remove(m_install.Path("3"));
    expectState("3", TARN_PEEK_CHANGED, TARN_WHY_GONE);
    EXPECT_EQ(Info().ullHits, 0U);
    ASSERT_TRUE(Run("update CT set FTV = FTV | (9 << 48) where FTV >= 0"));
    EXPECT_EQ(Reason(m_install.Path("0")), TARN_WHY_DAMAGED);
    EXPECT_EQ(RecordedLog::Texts(2), Texts{}); // these are answers, not errors
}

TEST_F(HostWords, RecordsThatGrowKeepToTheCallersSize) {
    StartWith(2);
    _LOCAL_CACHE_INFO info = {};
    std::memset(&info, 0xA5, sizeof info);
    info.size = offsetof(_LOCAL_CACHE_INFO, ullRecordCap);
    EXPECT_EQ(LocalCacheGetInfo(&info), TARN_OK);
    EXPECT_EQ(info.ullRecords, 2U);
    EXPECT_EQ(info.ullRecordCap, 0xA5A5A5A5A5A5A5A5U);
    info.size = 7;
    EXPECT_EQ(LocalCacheGetInfo(&info), TARN_E_INVALIDARG);
    EXPECT_EQ(Lookup(m_install.Path("0")), TARN_OK);
    EXPECT_EQ(Lookup(m_install.Path("lib")), TARN_NOT_CACHED);
    const _LOCAL_CACHE_INFO whole = Info();
    EXPECT_EQ(whole.ullHits, 1U);
    EXPECT_EQ(whole.ullMisses, 1U);
    EXPECT_EQ(whole.ullAdded, 2U);
    EXPECT_EQ(whole.ullFileBytes, fs::file_size(m_install.Database()));
    EXPECT_GT(whole.liNextExpiry, time(nullptr)); // the first start ran a pass
}

TEST_F(HostWords, TheCheckFindsWhatIsWrongAndChangesNothing) {
    StartWith(4);
    EXPECT_EQ(Findings(), Texts{});
    const CSecondConnection other(m_install.Database());
    ASSERT_TRUE(other.Run("update CT set FTV = FTV | (9 << 48) where FTV >= 0;"
                          "create trigger T after delete on CT begin delete from VDT; end"));
    const int64_t liChanges = other.Number("pragma data_version");
    EXPECT_EQ(Findings(),
              (Texts{"not one of the cache's own tables: T", "records whose virus description is missing: 2"}));
    EXPECT_EQ(other.Number("pragma data_version"), liChanges);
    ASSERT_TRUE(other.Run("alter table VST add column X"));
    EXPECT_EQ(Findings().back(), "a table is missing or has another schema; the next start makes it anew, empty");
}
