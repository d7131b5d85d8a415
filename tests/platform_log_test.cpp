#include "tests/platform_fixture.h"

#include <algorithm>
#include <sys/wait.h>

class PlatformLog : public PlatformTest {
  protected:
    // Runs the child through a shell, with strBefore in front of it and strAfter behind. Returns its exit status.
    int RunChild(const std::string &strBefore, const std::string &strArguments, const std::string &strAfter = "2>&1") {
        const std::string strOutput = " > '" + Path("output") + "' ";
        const int nStatus =
            system((strBefore + " '" TARN_LOG_CHILD "' " + strArguments + strOutput + strAfter).c_str());
        m_strOutput = Read("output");
        return WEXITSTATUS(nStatus);
    }
    bool Shown(const std::string &strPart) const { return m_strOutput.find(strPart) != std::string::npos; }
    std::string m_strOutput;
};

TEST_F(PlatformLog, LevelComesFromTheEnvironmentThenFromTheConfiguration) {
    const std::tuple<std::string, std::string, int> cases[] = {
        {"", "", 2},         {"", "info", 3},  {"", "nonsense", 2},    {"debug", "off", 4},
        {"off", "debug", 0}, {"", "Debug", 4}, {"severe", "debug", 1}, {"loud", "debug", 2}};
    for (const auto &[strEnvironment, strConfigured, nLevels] : cases) {
        SCOPED_TRACE(strEnvironment + "/" + strConfigured);
        WriteFile("config/tarncfg.ini", "[log]\nlevel=" + strConfigured + "\n");
        EXPECT_EQ(RunChild("TARN_LOG_LEVEL=" + strEnvironment, "levels text"), nLevels == 4 ? 1 : 0);
        for (int nLevel = 1; nLevel <= 4; ++nLevel) {
            EXPECT_EQ(Shown("child:" + std::to_string(nLevel) + " text\n"), nLevel <= nLevels) << nLevel;
        }
    }
}

TEST_F(PlatformLog, NamesCannotForgeALineOrSteerATerminal) {
    const std::string cases[][2] = {
        {"a\nb\x1b[31m\x7f \\n", "a\\nb\\x1b[31m\\x7f \\\\n"},
        {"gr\xc3\xbc\xc3\x9f \xf0\x9f\x98\x80", "gr\xc3\xbc\xc3\x9f \xf0\x9f\x98\x80"},
        {"\xff\xc0\x80\xed\xa0\x80 \xe2\x82", "\\xff\\xc0\\x80\\xed\\xa0\\x80 \\xe2\\x82"},
        {"\xc2\x9b \xe2\x80\xae \xe2\x81\xa6 \xe2\x80\x8b", // C1 control, direction marks, zero-width space
         "\\xc2\\x9b \\xe2\\x80\\xae \\xe2\\x81\\xa6 \\xe2\\x80\\x8b"},
        {std::string(60000, 'x'), std::string(5116, 'x') + "..."}};
    for (const auto &[strName, strWritten] : cases) {
        RunChild("TARN_LOG_LEVEL=severe", "levels '" + strName + "'");
        EXPECT_TRUE(m_strOutput.ends_with(" child:1 " + strWritten + "\n")) << m_strOutput;
        EXPECT_EQ(std::count(m_strOutput.begin(), m_strOutput.end(), '\n'), 1);
    }
}

TEST_F(PlatformLog, FilesArePrivateBoundedAndNotInherited) {
    WriteFile("config/tarncfg.ini", "[log]\nfile=@/../app.log\n");
    EXPECT_EQ(RunChild("umask 022;", "fill text"), 0);
    EXPECT_TRUE(Shown("output")) << m_strOutput;
    EXPECT_FALSE(Shown("app.log")) << m_strOutput;
    EXPECT_EQ(Status("app.log").st_mode, S_IFREG | 0600U);
    EXPECT_EQ(Status("app.1.log").st_mode, S_IFREG | 0600U);
    EXPECT_LE(Status("app.1.log").st_size, 10 * 1024 * 1024);
    EXPECT_NE(Read("app.log").find("child:2700 "), std::string::npos);
    ASSERT_TRUE(std::filesystem::create_directories(Path("app.2.log/x"))); // stands in the way of the next rotation
    EXPECT_EQ(RunChild("TARN_LOG_FILE=@/../app.log", "fill text"), 0);
    EXPECT_TRUE(Shown("app.log: the log file cannot be renamed")) << m_strOutput;
    EXPECT_TRUE(Shown("child:2700 ")) << m_strOutput; // what it did not take
    EXPECT_LT(Read("app.log").find("child:2700 "), Read("app.log").find("child:1 ")) << "what it took before is lost";
}

TEST_F(PlatformLog, ABrokenSinkNeverReachesTheCaller) {
    std::filesystem::create_symlink(WriteFile("target", "untouched"), Path("link.log"));
    ASSERT_EQ(mkfifo(Path("fifo.log").c_str(), 0600), 0);
    ASSERT_EQ(link(Path("target").c_str(), Path("twin.log").c_str()), 0);
    const std::string cases[][3] = {{"none/a.log", "levels", "2>&1"},
                                    {"link.log", "levels", "2>&1"},
                                    {"twin.log", "levels", "2>&1"},
                                    {"fifo.log", "levels", "2>&1"},
                                    {"none/a.log", "levels", "2>/dev/full"},
                                    {"none/a.log", "levels", "2>&-"},
                                    {"none/a.log", "pipe", ""},
                                    {"x.log", "limited", ""},
                                    {"/dev/null", "levels", "2>&1"}};
    for (const auto &[strFile, strAction, strAfter] : cases) {
        EXPECT_EQ(RunChild("TARN_LOG_FILE=" + Path(strFile), strAction + " text", strAfter), 0) << strFile << strAfter;
        for (const char *pszLine : {"child:1 text\n", "child:2 text\n"}) {
            EXPECT_EQ(Shown(pszLine), strAfter == "2>&1") << strFile << m_strOutput;
        }
    }
    EXPECT_EQ(Read("target"), "untouched");
}

TEST_F(PlatformLog, AFloodIsCountedAndAFullPipeDropsLinesInsteadOfWaiting) {
    for (const bool bDebug : {false, true}) {
        EXPECT_EQ(RunChild(bDebug ? "TARN_LOG_LEVEL=debug" : "", "flood text"), bDebug ? 1 : 0);
        EXPECT_EQ(std::count(m_strOutput.begin(), m_strOutput.end(), '\n'), bDebug ? 2004 : 2 + 6 + 2);
        EXPECT_NE(Shown("flood:1 and 995 more lines like these\n"), bDebug) << m_strOutput;
        EXPECT_NE(Shown("flood:2 and 999 more lines like these\n"), bDebug) << m_strOutput;
    }
    EXPECT_EQ(RunChild("timeout 20", "full text"), 0);
    EXPECT_TRUE(Shown(" lines dropped: ")) << m_strOutput;
    EXPECT_TRUE(m_strOutput.ends_with(" child:1 after\n")) << m_strOutput;
}
