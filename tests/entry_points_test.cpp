// The exported functions as a scanner calls them.
#include "tests/cache_fixture.h"

#include <set>

namespace fs = std::filesystem;

constexpr char kMD5A[] = "00112233445566778899aabbccddeeff";
constexpr char kMD5B[] = "ffeeddccbbaa99887766554433221100";
constexpr char kMD5C[] = "80000000000000010000000000000080";
constexpr char kUnknown[] = "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa";

class EntryPoints : public CCacheTest {
  protected:
    const std::string m_strOther = m_install.WriteFile("other");
    std::map<std::string, int32_t> m_mapFlags;
    _CacheFileInfo *m_pInfos = nullptr;
    uint64_t m_ullCount = 77;
};

TEST_F(EntryPoints, CheckArgumentsFirst) {
    const Codes refused(4, TARN_E_INVALIDARG);
    EXPECT_EQ((Codes{LocalCacheLookup(nullptr, m_szMD5, &m_found), LocalCacheLookup("", m_szMD5, &m_found),
                     LocalCacheLookup("/f", nullptr, &m_found), LocalCacheLookup("/f", m_szMD5, nullptr)}),
              refused);
    EXPECT_EQ((Codes{LocalCacheAdd("", kMD5A, &m_found), LocalCacheAdd("/f", nullptr, &m_found),
                     LocalCacheAdd("/f", kMD5A, nullptr), LocalCacheAddStat("/f", nullptr, "", &m_found)}),
              refused);
    EXPECT_EQ((Codes{LocalCacheLookupStat("/f", nullptr, m_szMD5, &m_found), LocalCacheGetStatistic(nullptr),
                     LocalCachePeek("/f", m_szMD5, &m_found, nullptr), LocalCacheDeleteByFileHash(nullptr)}),
              refused);
    EXPECT_EQ((Codes{LocalCacheFindFilesByHash(nullptr, 1, &m_pInfos, &m_ullCount),
                     LocalCacheFindFilesByHash("", 0, &m_pInfos, &m_ullCount),
                     LocalCacheFindFilesByHash("", 1, nullptr, &m_ullCount),
                     LocalCacheFindFilesByHash("", 1, &m_pInfos, nullptr)}),
              refused);
    EXPECT_EQ(LocalCacheLookUpByHashes(nullptr, 1, m_mapFlags), TARN_E_INVALIDARG);
    EXPECT_EQ(LocalCacheLookUpByHashes("", 0, m_mapFlags), TARN_E_INVALIDARG);
    EXPECT_STRNE(LocalCacheErrorText(TARN_E_INVALIDARG), LocalCacheErrorText(0x12345U)); // nobody's code
}

TEST_F(EntryPoints, FillInNothingWhenTheyFail) {
    _LOCAL_CACHE_STATISTIC statistic = {77, 78};
    uint32_t ulState = 79;
    for (const uint32_t ulCode : {TARN_E_NOT_INITIALIZED, TARN_E_FAIL}) {
        if (ulCode == TARN_E_FAIL) {
            EXPECT_EQ(RecordedLog::Texts(), Texts{});
            ASSERT_EQ(LocalCacheInitEx(), TARN_OK);
            ASSERT_EQ(LocalCacheInit(), TARN_OK); // too late for a writer
            EXPECT_EQ(Add(m_strFile), TARN_OK);
            EXPECT_EQ(LocalCacheFlush(0, nullptr), TARN_E_FAIL);
            ASSERT_EQ(LocalCacheUnInit(), TARN_OK);
            ASSERT_TRUE(Run("drop table CT"));
        }
        EXPECT_EQ((Codes{LocalCacheDeleteByFileHash(kMD5A), LocalCacheLookUpByHashes(kMD5A, 1, m_mapFlags),
                         LocalCacheFindFilesByHash(kMD5A, 1, &m_pInfos, &m_ullCount),
                         LocalCachePeek("/f", m_szMD5, &m_found, &ulState), LocalCacheGetStatistic(&statistic),
                         Add(m_strFile, Verdict(1, 1, "\"")), Lookup("relative")}),
                  Codes(7, ulCode));
        EXPECT_EQ(statistic.ulCacheSize, 78U);
        EXPECT_EQ(m_pInfos, nullptr);
        EXPECT_EQ(m_ullCount, 77U);
        EXPECT_TRUE(m_mapFlags.empty());
        EXPECT_EQ(ulState, 79U);
    }
}

TEST_F(EntryPoints, CountUsersDeleteByHashAndReportAtTheLastUser) {
    fs::remove(m_install.Config());
    EXPECT_EQ(LocalCacheInit(), TARN_E_FAIL); // counts for nothing
    m_install.WriteFile("config/tarncfg.ini");
    ASSERT_EQ(LocalCacheInit(), TARN_OK);
    ASSERT_EQ(LocalCacheInitEx(), TARN_OK); // the first user's mode holds
    const std::string strSame = m_install.WriteFile("same"), strNone = m_install.WriteFile("none");
    const std::pair<std::string, const char *> files[] = {
        {m_strFile, kMD5A}, {strSame, kMD5A}, {m_strOther, kMD5B}, {strNone, "no md5"}};
    for (const auto &[strPath, pszMD5] : files) {
        Remember(strPath, Verdict(1), pszMD5);
    }
    EXPECT_EQ(LocalCacheUnInit(), TARN_OK);
    for (const char *pszMD5 : {kMD5A, kMD5C}) {
        EXPECT_EQ(LocalCacheDeleteByFileHash(pszMD5), TARN_OK) << pszMD5; // also when nobody has it
    }
    for (const auto &[strPath, pszMD5] : files) {
        EXPECT_EQ(Lookup(strPath), pszMD5 == kMD5A ? TARN_NOT_CACHED : TARN_OK) << strPath;
    }
    EXPECT_EQ(LocalCacheDeleteByFileHash("00000000000000000000000000000000"), TARN_OK); // what "no md5" is stored as
    RecordedLog::Clear();
    EXPECT_EQ(LocalCacheUnInit(), TARN_OK);
    EXPECT_EQ(LocalCacheUnInit(), TARN_E_NOT_MATCHED);
    const Texts vecExpected = {"[LocalCacheUnInit]current cache size: 1.", "[LocalCacheUnInit]hit cache times: 2",
                               "[LocalCacheUnInit]Weed out cache counts: 0", "[LocalCacheUnInit]Weed out times: 1"};
    EXPECT_EQ(RecordedLog::Texts(3), vecExpected);
}

TEST_F(EntryPoints, GiveBackTheVerdictAndTouchNothingElse) {
    const std::tuple<uint32_t, int32_t, int32_t, std::string> cases[] = {
        {0xFFFFFF00, 0x0001FFFD, -3, "Win.Test.A"},
        {0x0001E000, 0x7FFF, 0x7FFF, ""},                                   // state 15
        {0x00022000, INT32_MIN, 0, std::string(TARN_VIRUS_DESC_SIZE, 'x')}, // state 17; text without an end
        {0x12345600, -32768, -32768, "a'b\n\xff;--"}};
    ASSERT_EQ(LocalCacheInit(), TARN_OK);
    for (const auto &[ulFlags, lCode, lCodeBack, strDesc] : cases) {
        _SCAN_FILE_RESULT in, expected, out;
        std::memset(&in, 0xA5, sizeof in);
        std::memset(&expected, 0x5C, sizeof expected);
        in.lEngineCode = lCode;
        in.ulFlags = ulFlags;
        std::memcpy(in.szVirusDesc, strDesc.c_str(), std::min<size_t>(strDesc.size() + 1, 64));
        Remember(m_strFile, in, "00112233445566778899AABBCCDDEEFF");
        out = expected;
        std::string strMD5(TARN_MD5_TEXT_SIZE + 1, '#');
        ASSERT_EQ(LocalCacheLookup(m_strFile.c_str(), strMD5.data(), &out), TARN_OK);
        EXPECT_EQ(strMD5, kMD5A + std::string("\0#", 2));
        expected.lEngineCode = lCodeBack;
        expected.ulFlags = ulFlags & ~0x00020000U; // the state's top bit is not kept
        const std::string strText =
            strDesc.substr(0, TARN_VIRUS_DESC_SIZE - 1); // without one the whole field is zeroed
        std::memset(expected.szVirusDesc, 0, strText.empty() ? TARN_VIRUS_DESC_SIZE : strText.size() + 1);
        std::memcpy(expected.szVirusDesc, strText.data(), strText.size());
        EXPECT_EQ(std::memcmp(&out, &expected, sizeof out), 0) << std::hex << ulFlags;
    }
}

TEST_F(EntryPoints, FilesByHashComeInMd5OrderWithTheirPathsJoined) {
    fs::create_directory(m_install.Path("engine/cache/d")); // deeper than a path index reaches
    const std::string strLate = m_install.WriteFile("engine/cache/d/z"), strGone = m_install.WriteFile("gone");
    ASSERT_EQ(LocalCacheInit(), TARN_OK);
    Remember(strLate, Verdict(1, 0), kMD5B);
    Remember(m_strFile, Verdict(1, 0x200), kMD5B);
    Remember(m_strOther, Verdict(1), kMD5A);
    Remember(strGone, Verdict(1, 0x80000000), kMD5C);
    fs::remove(strGone);
    const std::string strSlots = std::string(kMD5B) + '\0' + kUnknown + '\0' + kMD5A + '\0' + kMD5C + '\0' + kMD5B;
    std::set<std::string> setFolders;
    const auto note = [](const char *pszFolder, void *pSet) {
        static_cast<std::set<std::string> *>(pSet)->insert(pszFolder);
    };
    ASSERT_EQ(LocalCacheSetFindProgress(note, &setFolders), TARN_OK);
    ASSERT_EQ(LocalCacheFindFilesByHash(strSlots.c_str(), 5, &m_pInfos, &m_ullCount), TARN_OK);
    std::vector<std::pair<std::string, std::string>> vecFound;
    for (uint64_t i = 0; i < m_ullCount; ++i) {
        char *const pszPaths = m_pInfos[i].pszFilePaths; // unaligned where it lies
        vecFound.emplace_back(m_pInfos[i].szMD5, pszPaths != nullptr ? pszPaths : "null");
    }
    const std::string strJoined = strLate + ";" + m_strFile + ";";
    const std::vector<std::pair<std::string, std::string>> vecExpected = {
        {kMD5A, m_strOther + ";"}, {kMD5C, "null"}, {kUnknown, "null"}, {kMD5B, strJoined}, {"", "null"}};
    EXPECT_EQ(vecFound, vecExpected);
    char *const pszKept = m_pInfos[3].pszFilePaths;
    LocalCacheFree(nullptr, 1);
    LocalCacheFree(m_pInfos, 0); // both refused
    EXPECT_EQ(RecordedLog::Count("[LocalCacheFree]arg pCacheFileinfo is null or uCfinfoCounts is 0."), 2U);
    LocalCacheFree(m_pInfos, m_ullCount);
    EXPECT_EQ(pszKept, strJoined); // the caller's still
    std::free(pszKept);

    EXPECT_EQ(setFolders.count("/"), 1U);
    EXPECT_EQ(setFolders.count(m_install.Path("")), 1U);
    setFolders.clear();
    ASSERT_EQ(LocalCacheSetFindProgress(nullptr, &setFolders), TARN_OK);
    m_mapFlags = {{kMD5A, -5}, {"other", 6}};
    EXPECT_EQ(LocalCacheLookUpByHashes(strSlots.c_str(), 5, m_mapFlags), TARN_OK);
    EXPECT_EQ(m_mapFlags, (std::map<std::string, int32_t>{{kMD5A, -5}, {"other", 6}, {kMD5B, 0}, {kMD5C, INT32_MIN}}));
    EXPECT_TRUE(setFolders.empty());
}
