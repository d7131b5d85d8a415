// The exported functions as a scanner calls them.
#include "interface/tarncache.h"

#include "tests/support/install.h"
#include "tests/support/services.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>

namespace {

constexpr char kMD5A[] = "00112233445566778899aabbccddeeff";
constexpr char kMD5B[] = "ffeeddccbbaa99887766554433221100";
constexpr char kMD5C[] = "80000000000000010000000000000080";
constexpr char kUnknown[] = "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa";

class EntryPoints : public testing::Test {
  protected:
    void SetUp() override { RecordedLog::SetSource("tarncache"); }
    void TearDown() override { (void)LocalCacheUnInit(); }
    // File type 0, so that the writer takes it at once.
    static uint32_t Add(const std::string &strPath, const char *pszMD5, uint32_t ulFlags = 0,
                        const std::string &strVirusDesc = "") {
        _SCAN_FILE_RESULT result = {};
        result.ulFlags = ulFlags;
        strVirusDesc.copy(result.szVirusDesc, sizeof result.szVirusDesc);
        return LocalCacheAdd(strPath.c_str(), pszMD5, &result);
    }
    static void WaitForAdded(uint32_t ulCount) {
        _LOCAL_CACHE_STATISTIC statistic = {};
        EXPECT_TRUE(WaitFor([&] {
            EXPECT_EQ(LocalCacheGetStatistic(&statistic), TARN_OK);
            return statistic.ulAddedCount >= ulCount;
        }));
    }
    static uint32_t Lookup(const std::string &strPath) {
        char szMD5[TARN_MD5_TEXT_SIZE] = {};
        _SCAN_FILE_RESULT result = {};
        return LocalCacheLookup(strPath.c_str(), szMD5, &result);
    }
    const CTempInstall m_install;
    const std::string m_strFile = m_install.WriteFile("file"), m_strOther = m_install.WriteFile("other");
};

} // namespace

TEST_F(EntryPoints, CheckArgumentsFirstAndThenForTheAgent) {
    char szMD5[TARN_MD5_TEXT_SIZE] = {};
    _SCAN_FILE_RESULT result = {};
    _LOCAL_CACHE_STATISTIC statistic = {77, 78};
    uint64_t ullCount = 77;
    uint32_t ulState = 79;
    _CacheFileInfo *pInfos = nullptr;
    std::map<std::string, int32_t> mapFlags;
    EXPECT_EQ(LocalCacheLookup(nullptr, szMD5, &result), TARN_E_INVALIDARG);
    EXPECT_EQ(LocalCacheLookup("", szMD5, &result), TARN_E_INVALIDARG);
    EXPECT_EQ(LocalCacheLookup("/f", nullptr, &result), TARN_E_INVALIDARG);
    EXPECT_EQ(LocalCacheLookup("/f", szMD5, nullptr), TARN_E_INVALIDARG);
    EXPECT_EQ(LocalCachePeek("/f", szMD5, &result, nullptr), TARN_E_INVALIDARG);
    EXPECT_EQ(LocalCacheAdd("/f", kMD5A, nullptr), TARN_E_INVALIDARG);
    EXPECT_EQ(LocalCacheAdd("/f", nullptr, &result), TARN_E_INVALIDARG);
    EXPECT_EQ(LocalCacheAdd("", kMD5A, &result), TARN_E_INVALIDARG);
    EXPECT_EQ(LocalCacheGetStatistic(nullptr), TARN_E_INVALIDARG);
    EXPECT_EQ(LocalCacheDeleteByFileHash(nullptr), TARN_E_INVALIDARG);
    EXPECT_EQ(LocalCacheLookUpByHashes(nullptr, 1, mapFlags), TARN_E_INVALIDARG);
    EXPECT_EQ(LocalCacheLookUpByHashes("", 0, mapFlags), TARN_E_INVALIDARG);
    EXPECT_EQ(LocalCacheFindFilesByHash(nullptr, 1, &pInfos, &ullCount), TARN_E_INVALIDARG);
    EXPECT_EQ(LocalCacheFindFilesByHash("", 0, &pInfos, &ullCount), TARN_E_INVALIDARG);
    EXPECT_EQ(LocalCacheFindFilesByHash("", 1, nullptr, &ullCount), TARN_E_INVALIDARG);
    EXPECT_EQ(LocalCacheFindFilesByHash("", 1, &pInfos, nullptr), TARN_E_INVALIDARG);
    for (const uint32_t ulCode : {TARN_E_NOT_INITIALIZED, TARN_E_FAIL}) {
        if (ulCode == TARN_E_FAIL) {
            EXPECT_EQ(RecordedLog::Texts(), std::vector<std::string>{});
            ASSERT_EQ(LocalCacheInitEx(), TARN_OK);
            ASSERT_TRUE(CSecondConnection(m_install.Database()).Run("drop table CT"));
        }
        EXPECT_EQ(LocalCacheDeleteByFileHash(kMD5A), ulCode);
        EXPECT_EQ(LocalCacheGetStatistic(&statistic), ulCode);
        EXPECT_EQ(LocalCacheFindFilesByHash(kMD5A, 1, &pInfos, &ullCount), ulCode);
        EXPECT_EQ(LocalCacheLookUpByHashes(kMD5A, 1, mapFlags), ulCode);
        EXPECT_EQ(Add("/no/file", kMD5A), ulCode);
        EXPECT_EQ(Add(m_strFile, kMD5A, 0, "\""), ulCode);
        EXPECT_EQ(LocalCachePeek("/f", szMD5, &result, &ulState), ulCode);
        EXPECT_EQ(Lookup("/no/file"), ulCode);
        EXPECT_EQ(Lookup("relative"), ulCode);
        EXPECT_EQ(statistic.ulCacheSize, 78U); // nothing is filled in
        EXPECT_EQ(pInfos, nullptr);
        EXPECT_EQ(ullCount, 77U);
        EXPECT_EQ(mapFlags.size(), 0U);
        EXPECT_EQ(ulState, 79U);
    }
}

TEST_F(EntryPoints, CountUsersDeleteByHashAndReportAtTheLastUser) {
    ASSERT_EQ(LocalCacheInit(), TARN_OK);
    ASSERT_EQ(LocalCacheInitEx(), TARN_OK);
    const std::string strSame = m_install.WriteFile("same"), strNone = m_install.WriteFile("none");
    const std::pair<std::string, const char *> files[] = {
        {m_strFile, kMD5A}, {strSame, kMD5A}, {m_strOther, kMD5B}, {strNone, "no md5"}};
    for (const auto &[strPath, pszMD5] : files) {
        ASSERT_EQ(Add(strPath, pszMD5), TARN_OK) << strPath;
    }
    WaitForAdded(4); // the first user's mode holds
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
    const std::vector<std::string> vecExpected = {
        "[LocalCacheUnInit]current cache size: 1.", "[LocalCacheUnInit]hit cache times: 2",
        "[LocalCacheUnInit]Weed out cache counts: 0", "[LocalCacheUnInit]Weed out times: 1"};
    EXPECT_EQ(RecordedLog::Texts(3), vecExpected);
}

TEST_F(EntryPoints, FailedStartAndReadOnlyStartKeepNothing) {
    std::filesystem::remove(m_install.Config());
    EXPECT_EQ(LocalCacheInit(), TARN_E_FAIL);
    EXPECT_EQ(LocalCacheUnInit(), TARN_E_NOT_MATCHED);
    m_install.WriteFile("config/tarncfg.ini");
    ASSERT_EQ(LocalCacheInitEx(), TARN_OK);
    ASSERT_EQ(LocalCacheInit(), TARN_OK); // too late for a writer
    EXPECT_EQ(Add(m_strFile, kMD5A), TARN_OK);
    EXPECT_EQ(Lookup(m_strFile), TARN_NOT_CACHED);
    EXPECT_EQ(LocalCacheUnInit(), TARN_OK);
    EXPECT_EQ(LocalCacheUnInit(), TARN_OK);
    ASSERT_EQ(LocalCacheInit(), TARN_OK);
    EXPECT_EQ(Lookup(m_strFile), TARN_NOT_CACHED);
}

TEST_F(EntryPoints, GiveBackTheVerdictAndTouchNothingElse) {
    const struct {
        uint32_t ulFlags;
        int32_t lCode, lCodeBack;
        std::string strDesc;
    } cases[] = {{0xFFFFFF00, 0x0001FFFD, -3, "Win.Test.A"},
                 {0x0001E000, 0x7FFF, 0x7FFF, ""},                                   // state 15
                 {0x00022000, INT32_MIN, 0, std::string(TARN_VIRUS_DESC_SIZE, 'x')}, // state 17; text without an end
                 {0x12345600, -32768, -32768, "a'b\n\xff;--"}};
    ASSERT_EQ(LocalCacheInit(), TARN_OK);
    uint32_t ulAdded = 0;
    for (const auto &entry : cases) {
        _SCAN_FILE_RESULT in, expected, out;
        std::memset(&in, 0xA5, sizeof in);
        std::memset(&expected, 0x5C, sizeof expected);
        in.lEngineCode = entry.lCode;
        in.ulFlags = entry.ulFlags;
        std::memcpy(in.szVirusDesc, entry.strDesc.c_str(), std::min<size_t>(entry.strDesc.size() + 1, 64));
        ASSERT_EQ(LocalCacheAdd(m_strFile.c_str(), "00112233445566778899AABBCCDDEEFF", &in), TARN_OK);
        WaitForAdded(++ulAdded);
        out = expected;
        std::string strMD5(TARN_MD5_TEXT_SIZE + 1, '#');
        ASSERT_EQ(LocalCacheLookup(m_strFile.c_str(), strMD5.data(), &out), TARN_OK);
        EXPECT_EQ(strMD5, kMD5A + std::string("\0#", 2));
        EXPECT_EQ(out.szVirusDesc, entry.strDesc.substr(0, TARN_VIRUS_DESC_SIZE - 1));
        expected.lEngineCode = entry.lCodeBack;
        expected.ulFlags = entry.ulFlags & ~0x00020000U; // the state's top bit is not kept
        std::memcpy(expected.szVirusDesc, out.szVirusDesc, sizeof expected.szVirusDesc);
        EXPECT_EQ(std::memcmp(&out, &expected, sizeof out), 0) << std::hex << entry.ulFlags;
    }
}

TEST_F(EntryPoints, PeekTellsAChangedFileFromAnUnknownOne) {
    const auto expectPeek = [](const std::string &strPath, uint32_t ulExpected) {
        SCOPED_TRACE(strPath);
        char szMD5[TARN_MD5_TEXT_SIZE] = "as before";
        _SCAN_FILE_RESULT result = {};
        uint32_t ulState = 77;
        EXPECT_EQ(LocalCachePeek(strPath.c_str(), szMD5, &result, &ulState), TARN_OK);
        EXPECT_EQ(ulState, ulExpected);
        EXPECT_STREQ(szMD5, ulExpected == TARN_PEEK_UNKNOWN ? "as before" : kMD5B);
        EXPECT_EQ(std::string(result.szVirusDesc), ulExpected == TARN_PEEK_UNKNOWN ? "" : "Win.Test.A");
    };
    ASSERT_EQ(LocalCacheInit(), TARN_OK);
    ASSERT_EQ(Add(m_strFile, kMD5B, 0, "Win.Test.A"), TARN_OK);
    WaitForAdded(1);
    expectPeek(m_strOther, TARN_PEEK_UNKNOWN);
    expectPeek(m_strFile, TARN_PEEK_KNOWN);
    m_install.WriteFile("file", "another content");
    EXPECT_EQ(Lookup(m_strFile), TARN_NOT_CACHED);
    expectPeek(m_strFile, TARN_PEEK_CHANGED);
    std::filesystem::remove(m_strFile);
    expectPeek(m_strFile, TARN_PEEK_CHANGED);
    expectPeek("/no/file", TARN_PEEK_UNKNOWN);
    EXPECT_EQ(RecordedLog::Texts(2), std::vector<std::string>{}); // a file that is gone is an answer, not an error
    EXPECT_EQ(LocalCacheUnInit(), TARN_OK);
    EXPECT_TRUE(RecordedLog::Contains("[LocalCacheUnInit]hit cache times: 0"));
}

TEST_F(EntryPoints, FilesByHashComeInMd5OrderWithTheirPathsJoined) {
    std::filesystem::create_directory(m_install.Path("engine/cache/d")); // deeper than a path index reaches
    const std::string strLate = m_install.WriteFile("engine/cache/d/z"), strGone = m_install.WriteFile("gone");
    ASSERT_EQ(LocalCacheInit(), TARN_OK);
    ASSERT_EQ(Add(strLate, kMD5B), TARN_OK);
    ASSERT_EQ(Add(m_strFile, kMD5B, 0x200), TARN_OK);
    ASSERT_EQ(Add(m_strOther, kMD5A), TARN_OK);
    ASSERT_EQ(Add(strGone, kMD5C, 0x80000000), TARN_OK);
    WaitForAdded(4);
    std::filesystem::remove(strGone);
    const std::string strSlots = std::string(kMD5B) + '\0' + kUnknown + '\0' + kMD5A + '\0' + kMD5C + '\0' + kMD5B;
    _CacheFileInfo *pInfos = nullptr;
    uint64_t ullCount = 0;
    ASSERT_EQ(LocalCacheFindFilesByHash(strSlots.c_str(), 5, &pInfos, &ullCount), TARN_OK);
    std::vector<std::pair<std::string, std::string>> vecFound;
    for (uint64_t i = 0; i < ullCount; ++i) {
        char *const pszPaths = pInfos[i].pszFilePaths; // unaligned where it lies
        vecFound.emplace_back(pInfos[i].szMD5, pszPaths != nullptr ? pszPaths : "null");
    }
    const std::string strJoined = strLate + ";" + m_strFile + ";";
    const std::vector<std::pair<std::string, std::string>> vecExpected = {
        {kMD5A, m_strOther + ";"}, {kMD5C, "null"}, {kUnknown, "null"}, {kMD5B, strJoined}, {"", "null"}};
    EXPECT_EQ(vecFound, vecExpected);
    char *const pszKept = pInfos[3].pszFilePaths;
    LocalCacheFree(nullptr, 1);
    LocalCacheFree(pInfos, 0); // both refused
    LocalCacheFree(pInfos, ullCount);
    EXPECT_EQ(pszKept, strJoined); // the caller's still
    std::free(pszKept);

    std::map<std::string, int32_t> mapFlags = {{kMD5A, -5}, {"other", 6}};
    EXPECT_EQ(LocalCacheLookUpByHashes(strSlots.c_str(), 5, mapFlags), TARN_OK);
    EXPECT_EQ(mapFlags, (std::map<std::string, int32_t>{{kMD5A, -5}, {"other", 6}, {kMD5B, 0}, {kMD5C, INT32_MIN}}));
    EXPECT_EQ(RecordedLog::Count("[LocalCacheFree]arg pCacheFileinfo is null or uCfinfoCounts is 0."), 2U);
}
