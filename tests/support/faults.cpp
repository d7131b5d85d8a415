#include "tests/support/faults.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <mutex>
#include <new>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define REAL(Name) __interceptor_##Name
const bool Faults::kSanitized = true;
#else
#define REAL(Name) __libc_##Name
const bool Faults::kSanitized = false;
#endif

namespace {

Faults::EKind g_eKind = Faults::EKind::None;
uint64_t g_nAt = 0;
bool g_bForEver = false;
std::atomic<uint64_t> *g_pPoints = nullptr;
sqlite3_vfs *g_pReal = nullptr;

bool IsDue(bool bMemory) {
    if (g_eKind == Faults::EKind::None || (g_eKind == Faults::EKind::Memory) != bMemory) {
        return false;
    }
    const uint64_t nPoint = ++*g_pPoints;
    const bool bDue = nPoint == g_nAt || (g_bForEver && nPoint > g_nAt);
    if (bDue && g_eKind == Faults::EKind::Kill) {
        (void)raise(SIGKILL);
    }
    errno = bDue ? ENOMEM : errno;
    return bDue;
}

// What an open file points to: our methods, and SQLite's own behind them.
struct _Methods : sqlite3_io_methods {
    const sqlite3_io_methods *pReal;
};
using M = sqlite3_io_methods;
using V = sqlite3_vfs;

template <auto pMethod, int iError, typename... Arguments> int OnFile(sqlite3_file *pFile, Arguments... arguments) {
    const M *pReal = static_cast<const _Methods *>(pFile->pMethods)->pReal;
    return IsDue(false) ? iError : (pReal->*pMethod)(pFile, arguments...);
}

template <auto pMethod, int iError, typename... Arguments> int OnSystem(V *, Arguments... arguments) {
    return IsDue(false) ? iError : (g_pReal->*pMethod)(g_pReal, arguments...);
}

const M *InFrontOf(const M *pReal) {
    static std::mutex s_mutex;
    static _Methods s_aMethods[2] = {}; // SQLite has a set for databases, and one for other files
    const std::lock_guard guard(s_mutex);
    _Methods &methods = s_aMethods[s_aMethods[0].pReal != nullptr && s_aMethods[0].pReal != pReal ? 1 : 0];
    methods = {*pReal, pReal};
    methods.xRead = OnFile<&M::xRead, SQLITE_IOERR_READ>;
    methods.xWrite = OnFile<&M::xWrite, SQLITE_FULL>;
    methods.xTruncate = OnFile<&M::xTruncate, SQLITE_IOERR_TRUNCATE>;
    methods.xSync = OnFile<&M::xSync, SQLITE_IOERR_FSYNC>;
    methods.xFileSize = OnFile<&M::xFileSize, SQLITE_IOERR_FSTAT>;
    methods.xLock = OnFile<&M::xLock, SQLITE_IOERR_LOCK>;
    return &methods;
}

int Open(V *, const char *pszName, sqlite3_file *pFile, int iFlags, int *piOutFlags) {
    pFile->pMethods = nullptr;
    const int iResult = IsDue(false) ? SQLITE_CANTOPEN : g_pReal->xOpen(g_pReal, pszName, pFile, iFlags, piOutFlags);
    pFile->pMethods = pFile->pMethods != nullptr ? InFrontOf(pFile->pMethods) : nullptr;
    return iResult;
}

} // namespace

extern "C" {
void *REAL(malloc)(size_t);
void *REAL(calloc)(size_t, size_t);
void *REAL(realloc)(void *, size_t);
void *malloc(size_t nBytes) {
    return IsDue(true) ? nullptr : REAL(malloc)(nBytes);
}
void *calloc(size_t nCount, size_t nBytes) {
    return IsDue(true) ? nullptr : REAL(calloc)(nCount, nBytes);
}
void *realloc(void *pMemory, size_t nBytes) {
    return IsDue(true) ? nullptr : REAL(realloc)(pMemory, nBytes);
}
// A kill takes nothing from the kernel, and thousands of runs need their time.
int fsync(int) {
    return 0;
}
int fdatasync(int) {
    return 0;
}
const char *__asan_default_options() {
    return "alloc_dealloc_mismatch=0"; // operator new below
}
}

void *operator new(size_t nBytes) {
    void *pMemory = malloc(nBytes);
    return pMemory != nullptr ? pMemory : throw std::bad_alloc();
}

void Faults::Install() {
    g_pReal = sqlite3_vfs_find(nullptr);
    static V s_failing = *g_pReal;
    s_failing.zName = "failing";
    s_failing.xOpen = Open;
    s_failing.xDelete = OnSystem<&V::xDelete, SQLITE_IOERR_DELETE>;
    s_failing.xAccess = OnSystem<&V::xAccess, SQLITE_IOERR_ACCESS>;
    (void)sqlite3_vfs_register(&s_failing, 1);
}

void Faults::Arm(EKind eKind, uint64_t nAt, bool bForEver, std::atomic<uint64_t> &nPoints) {
    nPoints = 0;
    g_pPoints = &nPoints;
    g_nAt = nAt;
    g_bForEver = bForEver;
    g_eKind = eKind;
}

std::string Faults::RunInChild(const std::function<void()> &body, std::chrono::microseconds limit) {
    sigset_t childEnds;
    sigemptyset(&childEnds);
    sigaddset(&childEnds, SIGCHLD);
    (void)pthread_sigmask(SIG_BLOCK, &childEnds, nullptr);
    const pid_t child = fork();
    if (child == 0) {
        body();
        g_eKind = EKind::None;
#if defined(__SANITIZE_ADDRESS__)
        _exit(__lsan_do_recoverable_leak_check());
#endif
        _exit(0);
    }
    const timespec atOnce = {};
    const timespec time = {limit.count() / 1000000 * (kSanitized ? 10 : 1), limit.count() % 1000000 * 1000};
    if (sigtimedwait(&childEnds, nullptr, &time) < 0) {
        (void)kill(child, SIGKILL);
    }
    int iStatus = -1;
    (void)waitpid(child, &iStatus, 0);
    (void)sigtimedwait(&childEnds, nullptr, &atOnce);
    if (WIFSIGNALED(iStatus)) {
        return WTERMSIG(iStatus) == SIGKILL ? "killed" : "signal " + std::to_string(WTERMSIG(iStatus));
    }
    return iStatus == 0 ? "" : "status " + std::to_string(WEXITSTATUS(iStatus));
}
