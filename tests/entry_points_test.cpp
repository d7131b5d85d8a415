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
    void SetUp() override { RecordedLog::Clear(); }
    void TearDown() override { (void)LocalCacheUnInit(); }
    // File type 0, so that the writer takes it at once.
    static uint32_t Add(const std::string &strPath, const char *pszMD5, uint32_t ulFlags = 0,
                        const std::string &strVirusDesc = "") {
        _SCAN_FILE_RESULT result = {};
        result.ulFlags = ulFlags;
        strVirusDesc.copy(result.szVirusDesc, sizeof result.szVirusDesc);
        return LocalCacheAdd(strPath.c_str(), pszMD5, &result);
    }
    static bool WaitForAdded(uint32_t ulCount) {
        return WaitFor([ulCount] {
            _LOCAL_CACHE_STATISTIC statistic = {};
            return LocalCacheGetStatistic(&statistic) == TARN_OK && statistic.ulAddedCount >= ulCount;
        });
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
    const auto refused = [&](uint32_t ulBad) {
        return LocalCacheLookup(nullptr, szMD5, &result) == ulBad && LocalCacheLookup("", szMD5, &result) == ulBad &&
               LocalCacheLookup("/f", nullptr, &result) == ulBad && LocalCacheLookup("/f", szMD5, nullptr) == ulBad &&
               LocalCachePeek("/f", szMD5, &result, nullptr) == ulBad && LocalCacheAdd("/f", kMD5A, nullptr) == ulBad &&
               LocalCacheAdd("/f", nullptr, &result) == ulBad && LocalCacheAdd("", kMD5A, &result) == ulBad &&
               LocalCacheGetStatistic(nullptr) == ulBad && LocalCacheLookUpByHashes(nullptr, 1, mapFlags) == ulBad &&
               LocalCacheDeleteByFileHash(nullptr) == ulBad && LocalCacheLookUpByHashes("", 0, mapFlags) == ulBad &&
               LocalCacheFindFilesByHash(nullptr, 1, &pInfos, &ullCount) == ulBad &&
               LocalCacheFindFilesByHash("", 0, &pInfos, &ullCount) == ulBad &&
               LocalCacheFindFilesByHash("", 1, nullptr, &ullCount) == ulBad &&
               LocalCacheFindFilesByHash("", 1, &pInfos, nullptr) == ulBad;
    };
    const auto failed = [&](uint32_t ulResult) {
        return LocalCacheDeleteByFileHash(kMD5A) == ulResult && LocalCacheGetStatistic(&statistic) == ulResult &&
               LocalCacheFindFilesByHash(kMD5A, 1, &pInfos, &ullCount) == ulResult && pInfos == nullptr &&
               LocalCacheLookUpByHashes(kMD5A, 1, mapFlags) == ulResult && mapFlags.empty() && ullCount == 77 &&
               Add("/no/file", kMD5A) == ulResult && Add(m_strFile, kMD5A, 0, "\"") == ulResult &&
               LocalCachePeek("/f", szMD5, &result, &ulState) == ulResult && ulState == 79 &&
               Lookup("/no/file") == ulResult && Lookup("relative") == ulResult && statistic.ulCacheSize == 78;
    };
    EXPECT_TRUE(refused(TARN_E_INVALIDARG));
    EXPECT_TRUE(failed(TARN_E_NOT_INITIALIZED) && RecordedLog::Lines().empty());
    ASSERT_EQ(LocalCacheInitEx(), TARN_OK);
    ASSERT_TRUE(CSecondConnection(m_install.Database()).Run("drop table CT"));
    EXPECT_TRUE(failed(TARN_E_FAIL));
}

TEST_F(EntryPoints, CountUsersDeleteByHashAndReportAtTheLastUser) {
    ASSERT_TRUE(LocalCacheInit() == TARN_OK && LocalCacheInitEx() == TARN_OK);
    const std::string strSame = m_install.WriteFile("same"), strNone = m_install.WriteFile("none");
    ASSERT_EQ(Add(m_strFile, kMD5A) | Add(strSame, kMD5A) | Add(m_strOther, kMD5B) | Add(strNone, "no md5"), TARN_OK);
    ASSERT_TRUE(WaitForAdded(4)); // the first user's mode holds
    EXPECT_EQ(LocalCacheUnInit() | LocalCacheDeleteByFileHash(kMD5A) | LocalCacheDeleteByFileHash(kMD5C), TARN_OK);
    EXPECT_TRUE(Lookup(m_strFile) == TARN_NOT_CACHED && Lookup(strSame) == TARN_NOT_CACHED);
    EXPECT_TRUE(Lookup(m_strOther) == TARN_OK && Lookup(strNone) == TARN_OK);
    EXPECT_EQ(LocalCacheDeleteByFileHash("00000000000000000000000000000000"), TARN_OK); // what "no md5" is stored as
    RecordedLog::Clear();
    EXPECT_TRUE(LocalCacheUnInit() == TARN_OK && LocalCacheUnInit() == TARN_E_NOT_MATCHED);
    EXPECT_EQ(testing::PrintToString(RecordedLog::Texts(3)),
              R"({ "[LocalCacheUnInit]current cache size: 1.", "[LocalCacheUnInit]hit cache times: 2", )"
              R"("[LocalCacheUnInit]Weed out cache counts: 0", "[LocalCacheUnInit]Weed out times: 1" })");
}

TEST_F(EntryPoints, FailedStartAndReadOnlyStartKeepNothing) {
    std::filesystem::remove(m_install.Config());
    EXPECT_TRUE(LocalCacheInit() == TARN_E_FAIL && LocalCacheUnInit() == TARN_E_NOT_MATCHED);
    m_install.WriteFile("config/tarncfg.ini");
    ASSERT_TRUE(LocalCacheInitEx() == TARN_OK && LocalCacheInit() == TARN_OK); // too late for a writer
    EXPECT_TRUE(Add(m_strFile, kMD5A) == TARN_OK && Lookup(m_strFile) == TARN_NOT_CACHED);
    EXPECT_TRUE(LocalCacheUnInit() == TARN_OK && LocalCacheUnInit() == TARN_OK && LocalCacheInit() == TARN_OK &&
                Lookup(m_strFile) == TARN_NOT_CACHED);
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
        ASSERT_TRUE(WaitForAdded(++ulAdded));
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
    const auto peek = [](const std::string &strPath) {
        char szMD5[TARN_MD5_TEXT_SIZE] = "-";
        _SCAN_FILE_RESULT result = {};
        uint32_t ulState = 77;
        EXPECT_EQ(LocalCachePeek(strPath.c_str(), szMD5, &result, &ulState), TARN_OK) << strPath;
        return std::to_string(ulState) + szMD5 + result.szVirusDesc;
    };
    const std::string strChanged = std::string("1") + kMD5B + "Win.Test.A";
    ASSERT_TRUE(LocalCacheInit() == TARN_OK && Add(m_strFile, kMD5B, 0, "Win.Test.A") == TARN_OK && WaitForAdded(1));
    EXPECT_TRUE(peek(m_strOther) == "0-" && peek(m_strFile) == "2" + strChanged.substr(1));
    m_install.WriteFile("file", "another content");
    EXPECT_TRUE(Lookup(m_strFile) == TARN_NOT_CACHED && peek(m_strFile) == strChanged);
    std::filesystem::remove(m_strFile);
    EXPECT_TRUE(peek(m_strFile) == strChanged && peek("/no/file") == "0-");
    EXPECT_TRUE(RecordedLog::Texts(2).empty()); // a file that is gone is an answer, not an error
    EXPECT_TRUE(LocalCacheUnInit() == TARN_OK && RecordedLog::Contains("[LocalCacheUnInit]hit cache times: 0"));
}

TEST_F(EntryPoints, FilesByHashComeInMd5OrderWithTheirPathsJoined) {
    std::filesystem::create_directory(m_install.Path("engine/cache/d")); // deeper than a path index reaches
    const std::string strLate = m_install.WriteFile("engine/cache/d/z"), strGone = m_install.WriteFile("gone");
    ASSERT_TRUE(LocalCacheInit() == TARN_OK && Add(strLate, kMD5B) == TARN_OK &&
                Add(m_strFile, kMD5B, 0x200) == TARN_OK && Add(m_strOther, kMD5A) == TARN_OK &&
                Add(strGone, kMD5C, 0x80000000) == TARN_OK && WaitForAdded(4));
    std::filesystem::remove(strGone);
    const std::string strSlots = std::string(kMD5B) + '\0' + kUnknown + '\0' + kMD5A + '\0' + kMD5C + '\0' + kMD5B;
    _CacheFileInfo *pInfos = nullptr;
    uint64_t ullCount = 0;
    ASSERT_EQ(LocalCacheFindFilesByHash(strSlots.c_str(), 5, &pInfos, &ullCount), TARN_OK);
    std::string strAll;
    for (uint64_t i = 0; i < ullCount; ++i) {
        char *const pszPaths = pInfos[i].pszFilePaths; // unaligned where it lies
        strAll += std::string(pInfos[i].szMD5) + "=" + (pszPaths != nullptr ? pszPaths : "null") + "\n";
    }
    const std::string strJoined = strLate + ";" + m_strFile + ";";
    EXPECT_EQ(strAll, std::string(kMD5A) + "=" + m_strOther + ";\n" + kMD5C + "=null\n" + kUnknown + "=null\n" + kMD5B +
                          "=" + strJoined + "\n=null\n");
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
