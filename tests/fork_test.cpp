// Children forked around the cache, with the bundled services as they are.
#include "interface/tarncache.h"
#include "tests/platform_fixture.h"

#include <array>
#include <barrier>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

static pid_t s_child = -1; // 0 in a child

// What the parent's other threads hold would look like leaks in a child.
extern "C" int __lsan_is_turned_off() {
    return s_child == 0 ? 1 : 0;
}

class Forks : public PlatformTest {
  protected:
    ~Forks() override { (void)LocalCacheUnInit(); }
    // Whether the child finds what it should and ends.
    static bool HoldsInChild(pid_t child, const std::function<bool()> &body) {
        if (child == 0) {
            s_child = 0;
            alarm(20); // a child that hangs is a failure, not a hanging test
            exit(body() ? 0 : 1);
        }
        int iStatus = -1;
        return waitpid(child, &iStatus, 0) == child && iStatus == 0;
    }
    bool Gives(const std::array<uint32_t, 5> &codes) {
        _SCAN_FILE_RESULT result = {};
        return codes == std::array{LocalCacheInit(), LocalCacheAdd(m_strFile.c_str(), m_strMD5.c_str(), &result),
                                   LocalCacheFlush(60000, nullptr),
                                   LocalCacheLookup(m_strFile.c_str(), m_strMD5.data(), &result), LocalCacheUnInit()};
    }
    const std::function<bool()> m_hasIt = [this] { return Gives({TARN_OK, TARN_OK, TARN_OK, TARN_OK, TARN_OK}); };
    const std::function<bool()> m_hasNone = [this] {
        constexpr uint32_t kNone = TARN_E_NOT_INITIALIZED;
        return Gives({TARN_E_FAIL, kNone, kNone, kNone, TARN_E_NOT_MATCHED});
    };
    const std::string m_strFile = WriteFile("file");
    std::string m_strMD5 = "00112233445566778899aabbccddeeff";
};

// TARN_TEST_LENGTH: of 100 rounds, in percent.
TEST_F(Forks, AmongStartsAndEndsNestedInAnyOrderNoChildHangs) {
    const int nRounds = static_cast<int>(TestLength());
    std::barrier<> roundEnd(16);
    std::vector<std::jthread> vecThreads;
    for (int iThread = 0; iThread < 16; ++iThread) {
        vecThreads.emplace_back([&, iThread] {
            for (int i = iThread; i < iThread + nRounds; ++i, roundEnd.arrive_and_wait()) {
                const auto mayRead = [] { return LocalCacheInitReader() != TARN_OK || LocalCacheUnInit() == TARN_OK; };
                EXPECT_TRUE(i % 4 != 0 || HoldsInChild(fork(), mayRead)); // others may be starting it, or not
                for (int k = 0; k <= i % 3; ++k) {
                    EXPECT_EQ((i + k) % 2 == 0 ? LocalCacheInit() : LocalCacheInitEx(), TARN_OK);
                }
                EXPECT_TRUE(i % 4 != 0 || HoldsInChild(fork(), m_hasNone));
                for (int k = 0; k <= i % 3; ++k) {
                    EXPECT_EQ(LocalCacheUnInit(), TARN_OK);
                }
            }
        });
    }
    vecThreads.clear(); // joins them
    std::cout << nRounds << " rounds, " << 8 * nRounds << " children\n";
    EXPECT_EQ(LocalCacheUnInit(), TARN_E_NOT_MATCHED);
}

TEST_F(Forks, AChildHasNoCacheWhileItsParentHasOne) {
    EXPECT_TRUE(HoldsInChild(fork(), m_hasIt)) << "before the first start";
    EXPECT_TRUE(m_hasIt());
    EXPECT_TRUE(HoldsInChild(fork(), m_hasIt)) << "after the last end";
    ASSERT_EQ(LocalCacheInit(), TARN_OK);
    testing::internal::CaptureStderr();
    const auto touchNothing = [&] { return _exit(m_hasNone() ? 0 : 1), false; }; // the heap's locks may be held
    EXPECT_TRUE(HoldsInChild(_Fork(), touchNothing)) << "the handlers of fork() do not run";
    EXPECT_TRUE(HoldsInChild(fork(), [&] { return m_hasNone() && HoldsInChild(fork(), m_hasNone); }));
    EXPECT_NE(testing::internal::GetCapturedStderr().find("forked while the cache was in use"), std::string::npos);
    // A function of the host forks inside a call, which then ends in the child.
    const auto onRecord = [](const _LOCAL_CACHE_RECORD *, void *) { return (s_child = fork()) < 0 ? 1 : 0; };
    const uint32_t ulCode = LocalCacheEnumerate(onRecord, nullptr);
    EXPECT_TRUE(HoldsInChild(s_child, [&] { return ulCode == TARN_E_NOT_INITIALIZED && m_hasNone(); }));
    EXPECT_EQ(ulCode, TARN_OK);
}
