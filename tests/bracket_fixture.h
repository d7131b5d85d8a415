// bracket_fixture.h - the bracket of a scan over a file of a temporary installation; clocks, leases and file systems as
// the test wants them. Included once per test program.
#ifndef TARN_TESTS_BRACKET_FIXTURE_H
#define TARN_TESTS_BRACKET_FIXTURE_H

#include "tests/cache_fixture.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/vfs.h>

// f_type of statfs
constexpr uint32_t Ext = 0xEF53, Xfs = 0x58465342, Btrfs = 0x9123683E, Zfs = 0x2FC12FC1, Squash = 0x73717368,
                   Tmpfs = 0x01021994;
constexpr uint32_t Fuse = 0x65735546, Nfs = 0x6969, Fat = 0x4D44, NeverHeardOf = 0x12345678;
constexpr int64_t kLongAgo = 10; // seconds

inline thread_local bool t_bBegins = false; // Begin alone sees other clocks than the rest of the process
inline int64_t g_liAhead = kLongAgo;        // seconds, of the file system's clock
inline int64_t g_liSteadyAhead = 0;
inline uint32_t g_ulFileSystem = 0;       // what fstatfs answers; 0: the truth
inline int g_iLeaseError = 0;             // what asking for a lease ends with; 0: what the kernel says
inline std::function<void()> g_whileHeld; // runs once while a lease is held

inline uint32_t TypeOf(const std::string &strPath) {
    struct statfs fileSystem = {};
    return statfs(strPath.c_str(), &fileSystem) == 0 ? static_cast<uint32_t>(fileSystem.f_type) : 0;
}

extern "C" int clock_gettime(clockid_t clock, timespec *pTime) noexcept {
    const auto iResult = static_cast<int>(syscall(SYS_clock_gettime, clock, pTime));
    pTime->tv_sec += !t_bBegins ? 0 : clock == CLOCK_REALTIME ? g_liAhead : g_liSteadyAhead;
    return iResult;
}

extern "C" int fstatfs64(int fd, struct statfs64 *pFileSystem) noexcept {
    const auto iResult = static_cast<int>(syscall(SYS_fstatfs, fd, pFileSystem));
    pFileSystem->f_type = g_ulFileSystem != 0 ? g_ulFileSystem : pFileSystem->f_type;
    return iResult;
}

extern "C" int OnFcntl(int fd, int iCommand, uint64_t ullValue) __asm__("fcntl64");
extern "C" int OnFcntl(int fd, int iCommand, uint64_t ullValue) {
    if (iCommand == F_SETLEASE && ullValue == F_RDLCK && g_iLeaseError != 0) {
        errno = g_iLeaseError;
        return -1;
    }
    if (iCommand == F_SETLEASE && ullValue == F_UNLCK && g_whileHeld) {
        std::exchange(g_whileHeld, nullptr)();
    }
    return static_cast<int>(syscall(SYS_fcntl, fd, iCommand, ullValue));
}

// The bracket of one scan.
class CBracketedScan {
  public:
    // A shared map of a file's first page; its descriptor is closed.
    struct _Map {
        explicit _Map(const std::string &strPath) {
            const CDescriptor file(open(strPath.c_str(), O_RDWR | O_CLOEXEC));
            pPage = static_cast<char *>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, file.Get(), 0));
        }
        ~_Map() { munmap(pPage, 4096); }
        _Map(const _Map &) = delete;
        _Map &operator=(const _Map &) = delete;
        char *pPage;
    };
    ~CBracketedScan() {
        g_liAhead = kLongAgo;
        g_liSteadyAhead = 0;
        g_ulFileSystem = 0;
        g_iLeaseError = 0;
    }
    uint32_t BeginOf(int fd) {
        t_bBegins = true;
        const uint32_t ulResult = LocalCacheScanBegin(fd, &m_scan);
        t_bBegins = false;
        return ulResult;
    }
    void Begin(const std::string &strPath) {
        m_file = CDescriptor(open(strPath.c_str(), O_RDONLY | O_CLOEXEC));
        m_scan.size = sizeof m_scan;
        ASSERT_EQ(BeginOf(m_file.Get()), TARN_OK);
    }
    uint32_t Finish(const std::string &strPath, const _SCAN_FILE_RESULT &verdict = Verdict(1)) {
        uint32_t ulReason = 77;
        const uint32_t ulResult = LocalCacheScanFinish(&m_scan, strPath.c_str(), "", &verdict, &ulReason);
        if (ulReason == 77) {
            return ulResult;
        }
        EXPECT_EQ(ulResult, ulReason == TARN_REMEMBER_YES ? TARN_OK : TARN_NOT_CACHED);
        (void)LocalCacheFlush(60000, nullptr);
        return ulReason;
    }
    uint32_t Scan(const std::string &strPath, uint32_t ulAllow = 0, const _SCAN_FILE_RESULT &verdict = Verdict(1)) {
        Begin(strPath);
        m_scan.ulAllow = ulAllow;
        return Finish(strPath, verdict);
    }
    bool HasStatusOfBegin() const {
        struct stat status = {};
        return fstat(m_file.Get(), &status) == 0 &&
               std::memcmp(&status.st_ctim, &m_scan.status.st_ctim, sizeof status.st_ctim) == 0;
    }
    static CDescriptor Writer(const std::string &strPath, int iFlags = 0) {
        return CDescriptor(open(strPath.c_str(), O_WRONLY | O_CLOEXEC | iFlags));
    }
    static void Write(const std::string &strPath) { EXPECT_EQ(pwrite(Writer(strPath).Get(), "MALWR", 5, 0), 5); }
    // Mounts of its own for the process.
    static bool LeaveMounts() {
        return unshare(CLONE_NEWNS) == 0 && mount("", "/", "", MS_REC | MS_PRIVATE, nullptr) == 0;
    }

    CDescriptor m_file;
    _LOCAL_CACHE_SCAN m_scan = {};
};

#endif
