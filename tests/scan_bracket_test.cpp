// What is remembered between LocalCacheScanBegin and LocalCacheScanFinish. What goes round them first works where the
// verdict is added without them, so that its cases can fail; attacks_test.cpp has the attacks that they end.
#include "tests/bracket_fixture.h"

#include <csignal>
#include <linux/userfaultfd.h>
#include <sys/ioctl.h>
#include <sys/uio.h>
#include <thread>

namespace fs = std::filesystem;

class Bracket : public CCacheTest, public CBracketedScan {
  protected:
    void SetUp() override {
        m_install.WriteFile("file", "clean");
        if (TypeOf(m_strFile) != Ext) {
            GTEST_SKIP() << "the temporary folder is not on ext4";
        }
        ASSERT_EQ(LocalCacheInit(), TARN_OK);
    }
    bool IsKnown(const std::string &strPath) { return Lookup(strPath) == TARN_OK; }
};

TEST_F(Bracket, WhoeverCanStillWriteIsSeen) {
    EXPECT_EQ(Scan(m_strFile), TARN_REMEMBER_YES);
    {
        const _Map map(m_strFile);
        EXPECT_EQ(Scan(m_strFile), TARN_REMEMBER_WRITTEN);
        Begin(m_strFile);
    }
    EXPECT_EQ(Finish(m_strFile), TARN_REMEMBER_WRITTEN); // gone by now, and may have written too
    const std::string strOther = m_install.WriteFile("other");
    Begin(strOther);
    const CDescriptor writer = Writer(strOther);
    EXPECT_EQ(Finish(strOther), TARN_REMEMBER_WRITTEN);
    EXPECT_EQ(Scan(strOther), TARN_REMEMBER_WRITTEN);
}

TEST_F(Bracket, AWriteThatWaitsForItsDataIsSeen) {
    void *const pPage = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    std::string strData(4096, 'M');
    const CDescriptor faults(static_cast<int>(syscall(SYS_userfaultfd, O_CLOEXEC)));
    uffdio_api api = {UFFD_API, 0, 0};
    uffdio_register page = {{reinterpret_cast<uint64_t>(pPage), 4096}, UFFDIO_REGISTER_MODE_MISSING, 0};
    uffdio_copy fill = {page.range.start, reinterpret_cast<uint64_t>(strData.data()), 4096, 0, 0};
    if (ioctl(faults.Get(), UFFDIO_API, &api) != 0 || ioctl(faults.Get(), UFFDIO_REGISTER, &page) != 0) {
        GTEST_SKIP() << "userfaultfd is not allowed here";
    }
    fs::permissions(m_strFile, fs::perms(0666)); // a stranger's write
    for (const bool bMapGone : {false, true}) {  // then the kernel alone holds the page that it writes to
        SCOPED_TRACE(bMapGone);
        m_install.WriteFile("file", "clean");
        ASSERT_EQ(madvise(pPage, 4096, MADV_DONTNEED), 0);
        auto pMap = bMapGone ? std::make_unique<_Map>(m_strFile) : nullptr;
        char *const pchTarget = bMapGone ? pMap->pPage : nullptr;
        std::thread writer([&] {
            const iovec from = {pPage, 5}, to = {pchTarget, 5};
            EXPECT_EQ(bMapGone ? process_vm_writev(getpid(), &from, 1, &to, 1, 0)
                               : pwrite(Writer(m_strFile).Get(), pPage, 5, 0),
                      5);
        });
        uffd_msg touched = {};
        EXPECT_EQ(read(faults.Get(), &touched, sizeof touched), static_cast<ssize_t>(sizeof touched));
        pMap = nullptr;
        Remember(m_strFile);
        EXPECT_EQ(Scan(m_strFile), bMapGone ? TARN_REMEMBER_UNKNOWN : TARN_REMEMBER_WRITTEN);
        g_iLeaseError = EACCES;
        EXPECT_EQ(Scan(m_strFile), TARN_REMEMBER_UNKNOWN);
        g_iLeaseError = 0;
        EXPECT_EQ(ioctl(faults.Get(), UFFDIO_COPY, &fill), 0);
        writer.join();
        EXPECT_EQ(ReadWholeFile(m_strFile), "MMMMM");
        EXPECT_TRUE(IsKnown(m_strFile)); // no new change time
    }
    EXPECT_EQ(Scan(m_strFile), TARN_REMEMBER_YES); // nobody holds anything
}

TEST_F(Bracket, WithoutALeaseAWriteBackMakesEveryLaterWriteShow) {
    g_iLeaseError = EACCES;
    const _Map map(m_strFile);
    map.pPage[0] = 'h';
    Begin(m_strFile);
    map.pPage[0] = 'M';
    EXPECT_EQ(Finish(m_strFile), TARN_REMEMBER_CHANGED);
    EXPECT_EQ(Scan(m_strFile), TARN_REMEMBER_YES);
    map.pPage[0] = 'N';
    EXPECT_FALSE(HasStatusOfBegin());
}

TEST_F(Bracket, AnOverlayHidesNoMap) {
    for (const char *pszFolder : {"top", "low", "memory"}) {
        fs::create_directory(m_install.Path(pszFolder));
    }
    if (!LeaveMounts() || mount("", m_install.Path("memory").c_str(), "tmpfs", 0, nullptr) != 0) {
        GTEST_SKIP() << "mounts are root's: " << strerror(errno);
    }
    for (const std::string strKind : {"plain", "memory", "volatile"}) {
        SCOPED_TRACE(strKind);
        const std::string strBelow = m_install.Path(strKind);
        fs::create_directories(strBelow + "/up");
        fs::create_directories(strBelow + "/work");
        const std::string strOptions = "lowerdir=" + m_install.Path("low") + ",upperdir=" + strBelow +
                                       "/up,workdir=" + strBelow + "/work" + (strKind == "volatile" ? ",volatile" : "");
        if (mount("", m_install.Path("top").c_str(), "overlay", 0, strOptions.c_str()) != 0) {
            GTEST_SKIP() << "no overlay of this kind: " << strerror(errno);
        }
        const std::string strFile = m_install.WriteFile("top/file", "clean");
        const auto pMap = std::make_unique<_Map>(strFile);
        pMap->pPage[0] = 'h';
        Remember(strFile);
        pMap->pPage[0] = 'M';
        EXPECT_TRUE(IsKnown(strFile));
        EXPECT_EQ(Scan(strFile), strKind == "memory" ? TARN_REMEMBER_UNKNOWN : TARN_REMEMBER_YES);
        pMap->pPage[0] = 'N';
        EXPECT_EQ(HasStatusOfBegin(), strKind == "memory");
        EXPECT_EQ(umount2(m_install.Path("top").c_str(), MNT_DETACH), 0);
    }
}

TEST_F(Bracket, TheFileSystemDecides) {
    const std::string strOpen = m_install.WriteFile("open");
    fs::permissions(strOpen, fs::perms(0666));
    struct _Case {
        uint32_t ulType;
        uint32_t ulReason, ulWhereStrangersWrite, ulWithoutLease;
    };
    for (const _Case &row :
         {_Case{Fuse, 2, 2, 2}, _Case{Nfs, 2, 2, 2}, _Case{Fat, 2, 2, 2}, _Case{Xfs, 0, 2, 0}, _Case{Btrfs, 0, 2, 0},
          _Case{Squash, 0, 0, 0}, _Case{Zfs, 0, 0, 3}, _Case{Tmpfs, 3, 3, 3}, _Case{NeverHeardOf, 3, 3, 3}}) {
        SCOPED_TRACE(row.ulType);
        g_ulFileSystem = row.ulType;
        EXPECT_EQ(Scan(m_strFile), row.ulReason);
        EXPECT_EQ(Scan(strOpen), row.ulWhereStrangersWrite);
        g_iLeaseError = EACCES;
        EXPECT_EQ(Scan(m_strFile), row.ulWithoutLease);
        g_iLeaseError = 0;
    }
    g_ulFileSystem = 0;
    EXPECT_EQ(Scan("/proc/self/status", TARN_ALLOW_NETWORK | TARN_ALLOW_REMOVABLE), TARN_REMEMBER_FILE_SYSTEM);
}

TEST_F(Bracket, JustChangedIsJudgedByTheClockOfTheFileSystem) {
    for (const int64_t liAhead : {0, 1, -60}) { // or in the future
        g_liAhead = liAhead;
        EXPECT_EQ(Scan(m_install.WriteFile("new")), TARN_REMEMBER_RECENT);
    }
    g_liAhead = 3600; // a server's is an hour behind
    EXPECT_EQ(Scan(m_strFile), TARN_REMEMBER_YES);
    g_ulFileSystem = Nfs;
    EXPECT_EQ(Scan(m_strFile, TARN_ALLOW_NETWORK), TARN_REMEMBER_RECENT);
    g_liSteadyAhead = 3;
    EXPECT_EQ(Scan(m_strFile, TARN_ALLOW_NETWORK), TARN_REMEMBER_YES);
}

static std::atomic<int> g_nSignals = 0;

TEST_F(Bracket, NeitherHostNorOpenerNoticesTheLease) {
    sigset_t held;
    sigemptyset(&held);
    for (const int iSignal : {SIGURG, SIGWINCH, SIGIO, SIGUSR1}) {
        (void)signal(iSignal, [](int) { ++g_nSignals; });
    }
    for (const int iSignal : {SIGIO, SIGUSR1}) {
        sigaddset(&held, iSignal);
        ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &held, nullptr), 0);
        raise(iSignal);
    }
    Begin(m_strFile);
    const f_owner_ex owner = {F_OWNER_PID, getpid()};
    f_owner_ex ownerAfter = {};
    ASSERT_EQ(fcntl(m_file.Get(), F_SETSIG, SIGUSR2), 0);
    ASSERT_EQ(fcntl(m_file.Get(), F_SETOWN_EX, &owner), 0);
    for (const int nSent : {0, 1}) {
        std::thread waits;
        g_whileHeld = [&] {
            waits = std::thread([&] { EXPECT_TRUE(nSent == 1 || Writer(m_strFile).IsOpen()); });
            EXPECT_EQ(nSent == 0 ? Writer(m_strFile, O_NONBLOCK).Get() : kill(getpid(), SIGURG), nSent - 1);
        };
        EXPECT_EQ(BeginOf(m_file.Get()), TARN_OK);
        waits.join(); // at once, and not when the kernel ends the lease by itself
        EXPECT_TRUE(Writer(m_strFile, O_NONBLOCK).IsOpen());
        EXPECT_EQ(g_nSignals, nSent);
        EXPECT_EQ(fcntl(m_file.Get(), F_GETSIG), SIGUSR2);
        EXPECT_EQ(fcntl(m_file.Get(), F_GETOWN_EX, &ownerAfter), 0);
        EXPECT_EQ(ownerAfter.type, owner.type);
        EXPECT_EQ(ownerAfter.pid, owner.pid);
    }
    sigpending(&held);
    EXPECT_EQ(sigismember(&held, SIGIO), 1);
    EXPECT_EQ(sigismember(&held, SIGUSR1), 1);
    ASSERT_EQ(fcntl(m_file.Get(), F_SETLEASE, F_RDLCK), 0); // a lease of the host's own
    EXPECT_EQ(BeginOf(m_file.Get()), TARN_OK);
    EXPECT_EQ(Finish(m_strFile), TARN_REMEMBER_YES);
    EXPECT_EQ(fcntl(m_file.Get(), F_GETLEASE), F_RDLCK);
}

TEST_F(Bracket, ArgumentsAndModes) {
    Begin(m_strFile);
    EXPECT_EQ(Finish(""), TARN_E_INVALIDARG);
    EXPECT_EQ(Finish("relative"), TARN_REMEMBER_REFUSED);
    EXPECT_EQ(Finish(m_strFile), TARN_E_INVALIDARG); // used up
    EXPECT_EQ(BeginOf(CDescriptor(open("/", O_RDONLY | O_CLOEXEC)).Get()), TARN_E_INVALIDARG);
    --m_scan.size;
    EXPECT_EQ(BeginOf(m_file.Get()), TARN_E_INVALIDARG);
    ASSERT_EQ(LocalCacheUnInit(), TARN_OK);
    ASSERT_EQ(LocalCacheInitReader(), TARN_OK);
    EXPECT_EQ(Scan(m_strFile), TARN_REMEMBER_REFUSED);
    Begin(m_strFile);
    Write(m_strFile);
    EXPECT_EQ(Finish(m_strFile), TARN_REMEMBER_CHANGED);
    Begin(m_strFile);
    ASSERT_EQ(LocalCacheUnInit(), TARN_OK);
    EXPECT_EQ(Finish(m_strFile), TARN_E_NOT_INITIALIZED);
}
