/* Preloaded into the program: while the engine scans, allocations of TARN_TEST_LEAST bytes and more are refused. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>

static __thread int t_iScanning;

static int IsRefused(size_t nSize) {
    return t_iScanning && nSize >= strtoul(getenv("TARN_TEST_LEAST"), NULL, 10);
}

void *__libc_malloc(size_t nSize);
void *__libc_malloc(size_t nSize) {
    static void *(*s_pNext)(size_t);
    if (s_pNext == NULL) {
        *(void **)&s_pNext = dlsym(RTLD_NEXT, "__libc_malloc");
    }
    return IsRefused(nSize) ? NULL : s_pNext(nSize);
}

void *__libc_calloc(size_t nCount, size_t nSize);
void *__libc_calloc(size_t nCount, size_t nSize) {
    static void *(*s_pNext)(size_t, size_t);
    if (s_pNext == NULL) {
        *(void **)&s_pNext = dlsym(RTLD_NEXT, "__libc_calloc");
    }
    return IsRefused(nCount * nSize) ? NULL : s_pNext(nCount, nSize);
}

int cl_scandesc_callback(int, const char *, const char **, unsigned long *, const void *, void *, void *);
int cl_scandesc_callback(int fd, const char *pszFile, const char **ppszName, unsigned long *pScanned,
                         const void *pEngine, void *pOptions, void *pContext) {
    int (*pNext)(int, const char *, const char **, unsigned long *, const void *, void *, void *);
    *(void **)&pNext = dlsym(RTLD_NEXT, "cl_scandesc_callback");
    t_iScanning = 1;
    const int iResult = pNext(fd, pszFile, ppszName, pScanned, pEngine, pOptions, pContext);
    t_iScanning = 0;
    return iResult;
}
