// faults.h - the n-th system call of SQLite or the n-th allocation of anybody fails, in a child process that suffers
// it. Included once per test program, whose malloc and fdatasync this replaces.
#ifndef TARN_TESTS_SUPPORT_FAULTS_H
#define TARN_TESTS_SUPPORT_FAULTS_H

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <dlfcn.h>
#include <functional>
#include <new>
#include <sqlite3.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define REAL(Name) __interceptor_##Name
#else
#define REAL(Name) __libc_##Name
#endif
extern "C" void *REAL(malloc)(size_t), *REAL(calloc)(size_t, size_t), *REAL(realloc)(void *, size_t);
extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();

enum class EFault { None, File, Kill, Memory }; // Kill: SIGKILL before the system call

// Which call fails: the nAt-th of this kind, with bForEver each later one too. They are counted in *pPoints.
struct _FaultPlan {
    EFault eKind = EFault::None;
    uint64_t nAt = 0;
    bool bForEver = false;
    std::atomic<uint64_t> *pPoints = nullptr;
};
inline _FaultPlan g_plan;

inline thread_local bool t_bSpared = false; // this thread's allocations

inline bool IsDue(bool bMemory) {
    if (t_bSpared || g_plan.eKind == EFault::None || (g_plan.eKind == EFault::Memory) != bMemory) {
        return false;
    }
    const uint64_t nPoint = ++*g_plan.pPoints;
    const bool bDue = nPoint == g_plan.nAt || (g_plan.bForEver && nPoint > g_plan.nAt);
    if (bDue && g_plan.eKind == EFault::Kill) {
        (void)raise(SIGKILL);
    }
    errno = !bDue ? errno : bMemory ? ENOMEM : g_plan.nAt % 2 == 0 ? ENOSPC : EIO;
    return bDue;
}

template <int iCall, typename Result, typename... Arguments> void PutInFront(const char *pszSystemCall) {
    static sqlite3_syscall_ptr s_pReal = nullptr;
    sqlite3_vfs *pVfs = sqlite3_vfs_find(nullptr);
    s_pReal = pVfs->xGetSystemCall(pVfs, pszSystemCall);
    Result (*const pOurs)(Arguments...) = [](Arguments... arguments) {
        return IsDue(false) ? Result{-1} : reinterpret_cast<Result (*)(Arguments...)>(s_pReal)(arguments...);
    };
    (void)pVfs->xSetSystemCall(pVfs, pszSystemCall, reinterpret_cast<sqlite3_syscall_ptr>(pOurs));
}

inline void PutInFrontOfSQLite() {
    PutInFront<0, int, const char *, int, int>("open");
    PutInFront<1, int, int, int, void *>("fcntl");
    PutInFront<2, int, int, struct stat *>("fstat");
    PutInFront<3, int, int, off_t>("ftruncate");
    PutInFront<4, int, const char *>("unlink");
    PutInFront<5, ssize_t, int, void *, size_t, off_t>("pread64");
    PutInFront<6, ssize_t, int, const void *, size_t, off_t>("pwrite64");
}

extern "C" {
int fdatasync(int) {
    return IsDue(false) ? -1 : 0; // a kill takes nothing from the kernel, and thousands of runs have no time
}
#ifndef __SANITIZE_THREAD__ // which calls them before it is ready for a function of ours
void *malloc(size_t nBytes) {
    return IsDue(true) ? nullptr : REAL(malloc)(nBytes);
}
void *calloc(size_t nCount, size_t nBytes) {
    return IsDue(true) ? nullptr : REAL(calloc)(nCount, nBytes);
}
void *realloc(void *pMemory, size_t nBytes) {
    return IsDue(true) ? nullptr : REAL(realloc)(pMemory, nBytes);
}
#endif
const char *__asan_default_options() {
    return "alloc_dealloc_mismatch=0"; // operator new below
}
const char *__tsan_default_options() {
    return "atexit_sleep_ms=0"; // of each child
}
const char *__lsan_default_suppressions() {
    return "leak:CSimpleIniTempl"; // the parser's own: the texts that it held when memory ran out
}
}
#ifdef __SANITIZE_ADDRESS__
// It asks for this at the start of a thread, and aborts when there is no memory for the answer.
extern "C" int pthread_getattr_np(pthread_t thread, pthread_attr_t *pAttributes) noexcept {
    static const auto pNext =
        reinterpret_cast<int (*)(pthread_t, pthread_attr_t *)>(dlsym(RTLD_NEXT, "pthread_getattr_np"));
    t_bSpared = true;
    const int iError = pNext(thread, pAttributes);
    t_bSpared = false;
    return iError;
}
#endif
void *operator new(size_t nBytes) {
    void *pMemory = malloc(nBytes);
    return pMemory != nullptr ? pMemory : throw std::bad_alloc();
}

// Runs body in a child of this process and kills it after that time. "", or how it ended: "signal 9", "status 1".
inline std::string RunInChild(const std::function<void()> &body, std::chrono::microseconds time) {
    const pid_t child = fork();
    if (child == 0) {
        std::thread([time] { std::this_thread::sleep_for(time), (void)kill(getpid(), SIGKILL); }).detach();
        body();
        g_plan = {};
        _exit(__lsan_do_recoverable_leak_check != nullptr ? __lsan_do_recoverable_leak_check() : 0);
    }
    int iStatus = -1;
    (void)waitpid(child, &iStatus, 0);
    return iStatus == 0           ? ""
           : WIFSIGNALED(iStatus) ? "signal " + std::to_string(WTERMSIG(iStatus))
                                  : "status " + std::to_string(WEXITSTATUS(iStatus));
}

#endif
