#include "platform/nubbase.h"
#include "support/descriptor.h"
#include "tests/platform_fixture.h"

#include <cerrno>
#include <memory>
#include <sys/file.h>
#include <sys/resource.h>
#include <unistd.h>

class PlatformIni : public PlatformTest {
  protected:
    bool Load(const std::string &strPath) {
        return (m_ini = {ini_file_load(Path(strPath).c_str()), &ini_file_free}) != nullptr;
    }
    int Set(const char *s, const char *k, const char *v) { return ini_file_set(m_ini.get(), s, k, v); }
    int Save(const std::string &strPath) { return ini_file_save(m_ini.get(), Path(strPath).c_str(), 0); }
    static bool Has(const std::string &strText, const char *pPart) { return strText.find(pPart) != std::string::npos; }
    std::unique_ptr<void, decltype(&ini_file_free)> m_ini = {nullptr, &ini_file_free};
};

TEST_F(PlatformIni, ASaveThroughALinkChangesOnlyWhatWasSet) {
    std::string strText = "; file\n; two lines\n\n\n[cacheeng]\n\n; counted\ndbquerycounts=04\ndbname=a.db\n\n\n"
                          "# theirs\n[scanner]\nexclude=/proc\nexclude=/sys\nquoted=\"a b\"\n\n; last words\n";
    const std::string strReal = WriteFile("real.ini", strText);
    const gid_t group = chown(strReal.c_str(), geteuid(), 1235) == 0 ? 1235 : getegid(); // only root may
    ASSERT_EQ(chmod(strReal.c_str(), 0640), 0);
    std::filesystem::create_symlink("../real.ini", Path("config/x.ini"));
    strText.replace(strText.find("04"), 2, "17");
    for (const char *pszName : {".real.ini.new.Kill3d", ".real.ini.new.theirs1", ".real.ini.new.Liv1ng"}) {
        WriteFile(pszName, "left over");
    }
    const CDescriptor live(open(Path(".real.ini.new.Liv1ng").c_str(), O_RDONLY));
    ASSERT_EQ(flock(live.Get(), LOCK_EX), 0);
    for (int nSave = 0; nSave < 2; ++nSave) {
        ASSERT_TRUE(Load("config/x.ini"));
        EXPECT_EQ(Set("cacheeng", "dbquerycounts", "9"), 0);
        EXPECT_EQ(Set("CacheEng", "dbquerycounts", "17"), 0);
        ASSERT_EQ(Save("config/x.ini"), 0);
        EXPECT_EQ(Read("real.ini"), strText);
    }
    EXPECT_FALSE(Exists(Path(".real.ini.new.Kill3d"))) << "what a killed save has left stays";
    EXPECT_TRUE(Exists(Path(".real.ini.new.theirs1"))) << "no name of ours";
    EXPECT_TRUE(Exists(Path(".real.ini.new.Liv1ng"))) << "its maker lives";
    EXPECT_EQ(Status("real.ini").st_gid, group);
    EXPECT_EQ(Status("real.ini").st_mode, S_IFREG | 0640U);
    EXPECT_TRUE(std::filesystem::is_symlink(Path("config/x.ini")));
}

TEST_F(PlatformIni, TheShippedConfigurationSurvivesASaveByteForByte) {
    ASSERT_TRUE(Load(TARN_SHIPPED_CONFIG));
    ASSERT_EQ(Save("copy.ini"), 0);
    EXPECT_EQ(Status("copy.ini").st_mode, S_IFREG | 0600U);
    EXPECT_EQ(Read("copy.ini"), Read(TARN_SHIPPED_CONFIG));
}

TEST_F(PlatformIni, AwkwardFilesKeepTheirTextAndSettleAtTheFirstSave) {
    const std::string cases[] = {"\n;begin\n[s]\nk=v\n",
                                 "junk\n;begin\n[s]\nk=v",
                                 "[s]\r\nk = v\r\n;end",
                                 "\xef\xbb\xbf[other\n[s]\nk=v\n\n;begin\n\n;end\n",
                                 "[s]\nk=1\nx=\nk=v\n[]\ny=2\n[s]\nother=3\n",
                                 "<<<a\n=q\n[s]\nk=v\n[other\nm=<<<E\nline\n",
                                 "[t]\n[s]\nk=v\n;begin\n[T] ;end\njunk\n",
                                 std::string("[s]\nk=v\n\0\0\n[t]\nother=1", 22)};
    for (const std::string &strText : cases) {
        WriteFile("x.ini", strText);
        std::string strSaved[2];
        for (std::string &strResult : strSaved) {
            ASSERT_TRUE(Load("x.ini")) << strText;
            EXPECT_STREQ(ini_file_get(m_ini.get(), "s", "k"), "v") << strText;
            EXPECT_EQ(ini_file_get(m_ini.get(), "s", "none"), nullptr) << strText;
            EXPECT_EQ(Save("x.ini"), 0) << strText;
            strResult = Read("x.ini");
        }
        EXPECT_EQ(strSaved[0], strSaved[1]);
        for (const char *pKept : {";begin", ";end", "[other", "junk", "=q", "line"}) {
            EXPECT_EQ(Has(strText, pKept), Has(strSaved[1], pKept)) << strText;
        }
    }
}

TEST_F(PlatformIni, UnusableFilesAndTextAreRefused) {
    ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
    std::filesystem::resize_file(WriteFile("huge", "[s]\n"), 100'000'000);
    EXPECT_EQ(chmod(WriteFile("open", "[s]\n").c_str(), 0666), 0);
    EXPECT_EQ(link(WriteFile("twin", "[s]\n").c_str(), Path("twin2").c_str()), 0);
    const std::string strWide = WriteFile("engine/x.ini", "[s]\n");
    EXPECT_EQ(chmod(Path("engine").c_str(), 0777), 0);
    std::filesystem::create_symlink("engine/x.ini", Path("wide"));
    const std::pair<const char *, int> files[] = {{"none", ENOENT}, {"config", EISDIR}, {"fifo", EINVAL},
                                                  {"huge", EFBIG},  {"open", EACCES},   {"twin", EMLINK},
                                                  {"wide", EPERM}};
    for (const auto &[pszName, iError] : files) {
        EXPECT_FALSE(Load(pszName)) << pszName;
        EXPECT_EQ(errno, iError) << pszName;
    }
    ASSERT_TRUE(Load(WriteFile("x.ini", "[s]\nk=v\n")));
    const char *const texts[][3] = {{"s", "k", "a\n[t]"}, {"s", "k", "a\rb"}, {"s]", "k", "v"}, {"s", "a=b", "v"},
                                    {"s", "", "v"},       {"s", ";k", "v"},   {"s", "[k", "v"}, {"s", "k", nullptr},
                                    {"s", "k ", "v"},     {" s", "k", "v"},   {"s", "k", "\tv"}};
    for (const auto &[pSection, pKey, pValue] : texts) {
        EXPECT_NE(Set(pSection, pKey, pValue), 0) << pSection << "/" << pKey;
    }
}

TEST_F(PlatformIni, AFailedSaveLeavesTheOldFileAndSaysWhy) {
    ASSERT_TRUE(Load(WriteFile("lib/x.ini", "[s]\nk=old\n")));
    EXPECT_EQ(Set("s", "k", "new"), 0);
    std::filesystem::create_symlink("nowhere", Path("dangling"));
    std::filesystem::create_symlink(WriteFile("victim", "root's"), Path("theirs"));
    const bool bForeign = lchown(Path("theirs").c_str(), 1234, 1234) == 0; // only root may
    const std::pair<const char *, int> files[] = {{"gone/x.ini", ENOENT},
                                                  {"dangling", ENOENT},
                                                  {"config", EISDIR},
                                                  {bForeign ? "theirs" : "dangling", bForeign ? EPERM : ENOENT}};
    for (const auto &[pszName, iError] : files) {
        EXPECT_NE(Save(pszName), 0) << pszName;
        EXPECT_EQ(errno, iError) << pszName;
    }
    EXPECT_EQ(Read("victim"), "root's");
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlimit none = {0, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &none), 0);
    const int nError = Save("lib/x.ini") == 0 ? 0 : errno; // the write raises SIGXFSZ
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_EQ(nError, EFBIG);
    EXPECT_EQ(Read("lib/x.ini"), "[s]\nk=old\n");
    std::filesystem::remove(Path("lib/x.ini"));
    EXPECT_TRUE(std::filesystem::is_empty(Path("lib"))); // no temporary file stays
}
