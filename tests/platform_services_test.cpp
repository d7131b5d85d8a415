#include "platform/nubbase.h"
#include "platform/nubcl_ev.h"
#include "platform/tarncore.h"
#include "support/checked_file.h"
#include "tests/platform_fixture.h"

#include <csignal>
#include <cstring>
#include <dlfcn.h>
#include <new>
#include <sys/resource.h>
#include <unistd.h>

static bool g_bNoMemory = false;

// The timers' only allocation.
void *operator new(size_t nSize, const std::nothrow_t &) noexcept {
    return g_bNoMemory ? nullptr : operator new(nSize);
}

class PlatformServices : public PlatformTest {
  protected:
    static unsigned char *Bytes(std::string &strText) { return reinterpret_cast<unsigned char *>(strText.data()); }
    static void CountUp(cl_timerplus *pTimer) { ++*static_cast<int *>(pTimer->userData); }
    static void *InIsolation(void *pForeignTimer);
};

TEST_F(PlatformServices, PathsAreExpandedNormalisedAndNeverCut) {
    const std::string cases[][2] = {
        {"@/../etc/x", "/opt/t/etc/x"}, {"@/../a/", "/opt/t/a/"},   {"@", "/opt/t/lib"}, {"@//a/./b", "/opt/t/lib/a/b"},
        {"@/../../../x", "/x"},         {"/a/../@/b", "/a/../@/b"}, {"a@b", "a@b"}};
    setenv("TARN_INSTALL_DIR", "/opt/t/lib", 1);
    char szOut[4096] = "x";
    for (const auto &[strIn, strOut] : cases) {
        EXPECT_EQ(dirutils_path_transform(strIn.c_str(), szOut, static_cast<int>(strOut.size() + 1)), 1) << strIn;
        EXPECT_EQ(szOut, strOut) << strIn;
        EXPECT_EQ(dirutils_path_transform(strIn.c_str(), szOut, static_cast<int>(strOut.size())), 0) << strIn;
        EXPECT_STREQ(szOut, "") << strIn;
    }
    setenv("TARN_INSTALL_DIR", "inst/lib", 1);
    const std::string strStart = std::filesystem::current_path();
    std::filesystem::current_path("/"); // what was meant is the folder at the start
    EXPECT_EQ(dirutils_path_transform("@/x", szOut, sizeof(szOut)), 1);
    std::filesystem::current_path(strStart);
    EXPECT_EQ(szOut, strStart + "/inst/lib/x");
    setenv("TARN_INSTALL_DIR", "//", 1);
    EXPECT_EQ(dirutils_path_transform("@/", szOut, sizeof(szOut)), 1);
    EXPECT_STREQ(szOut, "/");
    unsetenv("TARN_INSTALL_DIR");
    EXPECT_EQ(dirutils_path_transform("@/libnubbase.so.1", szOut, sizeof(szOut)), 1);
    EXPECT_EQ(access(szOut, F_OK), 0) << szOut;
}

TEST_F(PlatformServices, DigestsMatchKnownValues) {
    std::string strDigits = "123456789";
    EXPECT_EQ(Crc32(Crc32(0, Bytes(strDigits), 4), Bytes(strDigits) + 4, 5), 0xcbf43926U);
    EXPECT_EQ(Crc32(77, nullptr, 0), 77U);
    unsigned char bytes[16] = {};
    for (const char *pText : {"00ff10AB23cd45ef0123456789abcdef0", "00ff10AB23cd45ef0123456789abcde",
                              " 0ff10AB23cd45ef0123456789abcde ", "g0ff10AB23cd45ef0123456789abcdef"}) {
        bytes[0] = 0x55;
        EXPECT_EQ(MD5_StrResultConvert(pText, bytes), 0) << pText;
        EXPECT_EQ(bytes[0], 0) << pText;
    }
    EXPECT_EQ(MD5_StrResultConvert("00ff10AB23cd45ef0123456789abcdef", bytes), 1);
    char szText[33] = "";
    EXPECT_EQ(MD5_BinResultConvert(bytes, szText), 1);
    EXPECT_STREQ(szText, "00ff10ab23cd45ef0123456789abcdef");
}

TEST_F(PlatformServices, Rc4MatchesKnownVectorsAndCopies) {
    std::string cases[][3] = {{"Key", "Plaintext", "\xbb\xf3\x16\xe8\xd9\x40\xaf\x0a\xd3"},
                              {std::string(300, 'W'), "pedia", "\xd3\x7c\x3d\x68\xc1"}, // more than RC4 uses
                              {"", "pedia", "pedia"}};
    for (auto &[strKey, strText, strCipher] : cases) {
        RC4_STATE state;
        RC4_set_key(&state, static_cast<int>(strKey.size()), Bytes(strKey));
        RC4_crypt(&state, 2, Bytes(strText), Bytes(strText));
        RC4_STATE copy = state;
        std::string strRest = strText.substr(2);
        RC4_crypt(&state, strRest.size(), Bytes(strRest), Bytes(strText) + 2);
        RC4_crypt(&copy, strRest.size(), Bytes(strRest), Bytes(strRest));
        EXPECT_EQ(strText, strCipher) << strKey;
        EXPECT_EQ(strRest, strCipher.substr(2)) << strKey;
    }
}

TEST_F(PlatformServices, BusinessValuesNeedAPrivateFileAndStayOutOfTheLog) {
    setenv("TARN_LOG_LEVEL", "debug", 1); // no line counts as a repeat
    const std::pair<const char *, mode_t> cases[] = {
        {"4a4B4c", 0600}, {"4a4b4c", 0640}, {"4a4b4c", 0620}, {"4a4b4", 0600},  {"4a4b4c", 0604},
        {"4a4b4c", 0602}, {"4a4bzz", 0600}, {"", 0600},       {"4a4b4c", 0610}, {"4a 4b 4c", 0600}};
    for (const auto &[pValue, mode] : cases) {
        SCOPED_TRACE(testing::Message() << "value " << pValue << ", mode " << mode);
        const bool bGood = pValue == cases[0].first;
        const std::string strFile =
            WriteFile("config/business.ini", std::string("[avscan]\nmor_secret=") + pValue + "\n");
        EXPECT_EQ(chmod(strFile.c_str(), mode), 0);
        std::string strOut = "uuu";
        testing::internal::CaptureStderr();
        EXPECT_EQ(get_business_value("avscan", "mor_secret", 0, 0, Bytes(strOut), 2), bGood ? 2 : -1);
        const std::string strLog = testing::internal::GetCapturedStderr();
        EXPECT_EQ(strLog.empty(), bGood);
        EXPECT_EQ(strLog.find("4a4b"), std::string::npos) << strLog;
        EXPECT_EQ(strOut, bGood ? "JKu" : "uuu");
    }
}

TEST_F(PlatformServices, AFileThatOthersMayHavePutThereIsNamed) {
    for (const char *pszName : {"good", "linked", "foreign", "open"}) {
        EXPECT_EQ(chmod(WriteFile(pszName, "text").c_str(), 0600), 0) << pszName;
    }
    EXPECT_EQ(link(Path("linked").c_str(), Path("twin").c_str()), 0);
    EXPECT_EQ(chmod(Path("open").c_str(), 0640), 0);
    std::filesystem::create_symlink("good", Path("link"));
    std::filesystem::create_symlink("victim", Path("dangling"));
    EXPECT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
    const bool bRoot = chown(Path("foreign").c_str(), 1234, 1234) == 0; // only root may
    const std::pair<const char *, EFileFault> cases[] = {
        {"good", EFileFault::None},
        {"none", EFileFault::Absent},
        {"link", EFileFault::Link},
        {"dangling", EFileFault::Link},
        {"config", EFileFault::NotRegular},
        {"fifo", EFileFault::NotRegular},
        {"twin", EFileFault::SeveralNames},
        {"open", EFileFault::OpenToOthers},
        {"foreign", bRoot ? EFileFault::ForeignOwner : EFileFault::None}};
    CDescriptor file;
    for (const auto &[pszName, eFault] : cases) {
        EXPECT_EQ(CheckFile(Path(pszName).c_str(), kSharedMode).eFault, eFault) << pszName;
        EXPECT_EQ(OpenChecked(AT_FDCWD, Path(pszName).c_str(), O_RDONLY, kSharedMode, file).eFault, eFault) << pszName;
        const EFileFault eMade = eFault == EFileFault::Absent ? EFileFault::None : eFault;
        EXPECT_EQ(OpenChecked(AT_FDCWD, Path(pszName).c_str(), O_WRONLY | O_CREAT, kSharedMode, file).eFault, eMade)
            << pszName << ", for writing";
        EXPECT_EQ(file.IsOpen(), eMade == EFileFault::None) << pszName;
    }
    EXPECT_EQ(Status("none").st_mode, S_IFREG | 0600U);
    EXPECT_FALSE(Exists(Path("victim"))) << "made through a link";
}

// Runs with another thread's timer.
void *PlatformServices::InIsolation(void *pForeignTimer) {
    cl_timerplus_stop(static_cast<cl_timerplus *>(pForeignTimer)); // ignored, both
    cl_timerplus_close(static_cast<cl_timerplus *>(pForeignTimer));
    int nFired = 0;
    cl_timerplus_start(0, 1, cl_timerplus_close, nullptr, 0, 0); // closes itself
    cl_timerplus_start(0, 2, CountUp, &nFired, 0, 0);            // left to the end of the thread
    while (nFired == 0) {
        cl_event_loop_once();
    }
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGTERM), 1);
    EXPECT_EQ(sigismember(&mask, SIGUSR1), 1);
    EXPECT_EQ(sigismember(&mask, SIGSEGV), 0); // faults reach the host
    return nullptr;
}

TEST_F(PlatformServices, ATimerRepeatsOnItsOwnThreadUntilStopped) {
    int nFired = 0;
    g_bNoMemory = true;
    EXPECT_EQ(cl_timerplus_start(0, 5, CountUp, &nFired, 0, 0), nullptr);
    g_bNoMemory = false;
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none = {0, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0); // a host without a descriptor left has timers all the same
    cl_timerplus *pTimer = cl_timerplus_start(0, 5, CountUp, &nFired, 0, 0);
    ASSERT_NE(pTimer, nullptr);
    pthread_t thread;
    ASSERT_EQ(cl_ev_create_isolated_thread(&thread, 0, InIsolation, pTimer), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGTERM), 0) << "the starting thread was left closed to signals";
    while (cl_ev_cb_count() != 1) { // the test's time limit ends this
    }
    EXPECT_EQ(nFired, 0) << "counting ran it, or the other thread did";
    cl_ev_loop_nowait(1);
    cl_event_loop_once();
    EXPECT_EQ(nFired, 1);
    cl_ev_loop_nowait(0);
    cl_event_loop_once();
    EXPECT_EQ(nFired, 2) << "a waiting turn ends with the next callback";
    cl_timerplus_stop(pTimer);
    cl_event_loop_once();
    EXPECT_EQ(nFired, 2);
    cl_timerplus_close(pTimer);
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

TEST_F(PlatformServices, AHostMayCloseTheCacheWhileItRuns) {
    void *pLibrary = dlopen(TARN_LIBRARY, RTLD_NOW);
    ASSERT_NE(pLibrary, nullptr) << dlerror();
    const auto pWaitReady = reinterpret_cast<uint32_t (*)(uint32_t)>(dlsym(pLibrary, "LocalCacheWaitReady"));
    EXPECT_EQ(reinterpret_cast<uint32_t (*)()>(dlsym(pLibrary, "LocalCacheInit"))(), 0U);
    EXPECT_EQ(dlclose(pLibrary), 0);
    EXPECT_EQ(pWaitReady(60000), 0U) << "the writer goes on";
    pLibrary = dlopen(TARN_LIBRARY, RTLD_NOW);
    EXPECT_EQ(reinterpret_cast<uint32_t (*)()>(dlsym(pLibrary, "LocalCacheUnInit"))(), 0U) << "another library";
}
