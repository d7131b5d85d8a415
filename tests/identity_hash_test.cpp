#include "interface/tarncache.h"
#include "tests/support/install.h"
#include "tests/support/services.h"

#include <gtest/gtest.h>
#include <zlib.h>

// Stored hashes are compared bit for bit, so these numbers (zlib.crc32 of Python) must never change.
TEST(PathHash, IsTheSeededCrcOfTheNameAndHalfTheCrcOfTheDirectory) {
    const std::pair<const char *, uint64_t> cases[] = {{"/f", 0xD2D4F76D3DFF},
                                                       {"/dir/", 0xF91E0000F91E},
                                                       {"//usr/./lib/../lib/x.so", 0x54815A533D4B},
                                                       {"a/b", 0x75400762AE1C},
                                                       {"/tmp/na\nme\xff\xfe", 0x64DF4F621604}};
    for (const auto &[pszPath, ullExpected] : cases) {
        uint32_t aulWords[2] = {};
        EXPECT_EQ(CalcFilePathCrc32(pszPath, aulWords), 1) << pszPath;
        EXPECT_EQ(uint64_t{aulWords[1]} << 32U | aulWords[0], ullExpected) << pszPath;
    }
}

TEST(AttrHash, CoversSizeAndStatusChangeTimeOfTheLinkItself) {
    const CTempInstall install;
    std::filesystem::create_symlink("/nowhere/at/all", install.Path("dangling"));
    std::filesystem::resize_file(install.WriteFile("huge"), (uint64_t{5} << 30U) + 1); // sparse
    std::filesystem::last_write_time(install.Path("huge"), {});                        // not what is hashed
    for (const char *pszName : {"config/tarncfg.ini", "dangling", "huge", "lib"}) {
        const struct stat status = StatusOf(install.Path(pszName));
        const int64_t aliBlock[] = {status.st_size, status.st_ctim.tv_sec};
        uint32_t ulHash = 0;
        EXPECT_EQ(CalcFileAttrCrc32(install.Path(pszName).c_str(), &ulHash), 1) << pszName;
        EXPECT_EQ(ulHash, crc32(0, reinterpret_cast<const Bytef *>(aliBlock), 16)) << pszName;
    }
}

TEST(PathIndex, TakesTheFirstCharacterOfEachDirectoryAndNothingMore) {
    const std::tuple<const char *, uint32_t, const char *> cases[] = {
        {"/usr/lib/x.so", 5, "/ul####"}, {"/a/b/c/d/e/f", 5, "/abcd##"}, {"/a/b/c/d/e/f", 3, "/ab####"},
        {"/a//b/c", 5, "/a/b###"},       {"/x", 5, "/######"},           {"/", 5, "/######"},
        {"/dir/sub/", 5, "/d#####"},     {"usr/lib/x", 5, "usl####"},    {"/a/b/c", 0, "/######"},
        {"/a/b/c", 1, "/######"},        {"file", 5, "f######"}};
    for (const auto &[pszPath, ulMaxLength, pszExpected] : cases) {
        char szIndex[8] = "#######";
        EXPECT_EQ(CalcFilePathIndex(pszPath, szIndex, ulMaxLength), 1) << pszPath;
        EXPECT_STREQ(szIndex, pszExpected) << pszPath << ", at most " << ulMaxLength;
    }
}

TEST(IdentityHash, FailuresLeaveTheOutputAndBadArgumentsAreSilent) {
    uint32_t aulWords[2] = {7, 7};
    char szIndex[8] = "#######";
    RecordedLog::SetSource("cacheutil");
    for (const char *pszEmpty : {static_cast<const char *>(nullptr), ""}) {
        EXPECT_EQ(CalcFilePathCrc32(pszEmpty, aulWords), 0);
        EXPECT_EQ(CalcFileAttrCrc32(pszEmpty, aulWords), 0);
        EXPECT_EQ(CalcFilePathIndex(pszEmpty, szIndex, 5), 0);
    }
    EXPECT_EQ(CalcFilePathCrc32("/", nullptr), 0);
    EXPECT_EQ(CalcFileAttrCrc32("/", nullptr), 0);
    EXPECT_EQ(CalcFilePathIndex("/", nullptr, 5), 0);
    EXPECT_EQ(RecordedLog::Texts(), std::vector<std::string>{});
    EXPECT_EQ(CalcFilePathCrc32("x", aulWords), 0);
    EXPECT_EQ(CalcFileAttrCrc32("/no", aulWords), 0);
    EXPECT_EQ(aulWords[0], 7U);
    EXPECT_EQ(aulWords[1], 7U);
    EXPECT_STREQ(szIndex, "#######");
    const std::string strNoFile = "[CalcFileAttrCrc32][cache] get file:/no attr failed, err:No such file or directory.";
    EXPECT_EQ(RecordedLog::Texts(2),
              (std::vector<std::string>{"[CalcFilePathCrc32][cache] the path:x is invalid.", strNoFile}));
}
