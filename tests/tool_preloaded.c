/* Preloaded into the program: TARN_TEST_DURING runs before each scan, which gets no TARN_TEST_LEAST bytes of memory. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>

static __thread int t_iScanning;

static int IsRefused(size_t nSize) {
    const char *pszLeast = t_iScanning ? getenv("TARN_TEST_LEAST") : NULL;
    return pszLeast != NULL && nSize >= strtoul(pszLeast, NULL, 10);
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
    if (getenv("TARN_TEST_DURING") != NULL && system(getenv("TARN_TEST_DURING")) != 0) {
        abort();
    }
    t_iScanning = 1;
    const int iResult = pNext(fd, pszFile, ppszName, pScanned, pEngine, pOptions, pContext);
    t_iScanning = 0;
    return iResult;
}
