#include "tools/engine/memory_watch.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>

namespace {

std::atomic<uint64_t> g_ullFailed = 0;

} // namespace

uint64_t FailedAllocations() noexcept {
    return g_ullFailed.load();
}

#if defined(TARN_WATCH_MEMORY) && defined(__GLIBC__)

// The program's own functions stand before those of the C library for everything it has loaded, and pass each call on
// to them. All that give or take memory are here: were some left out, a preloaded allocator would get the others'
// memory back.
namespace {

// More than PTRDIFF_MAX bytes are refused on every machine, so such a request says nothing about the memory here.
void *Watched(void *pMemory, size_t nSize) noexcept {
    if (pMemory == nullptr && nSize != 0 && nSize <= PTRDIFF_MAX) {
        g_ullFailed.fetch_add(1);
    }
    return pMemory;
}

} // namespace

extern "C" {
#pragma GCC visibility push(default)

void *__libc_malloc(size_t nSize) noexcept;
void *__libc_calloc(size_t nCount, size_t nSize) noexcept;
void *__libc_realloc(void *pMemory, size_t nSize) noexcept;
void *__libc_memalign(size_t nAlignment, size_t nSize) noexcept;
void __libc_free(void *pMemory) noexcept;

void *malloc(size_t nSize) noexcept {
    return Watched(__libc_malloc(nSize), nSize);
}

void *calloc(size_t nCount, size_t nSize) noexcept {
    size_t nBytes = 0;
    const bool bAbsurd = __builtin_mul_overflow(nCount, nSize, &nBytes);
    return Watched(__libc_calloc(nCount, nSize), bAbsurd ? SIZE_MAX : nBytes);
}

void *realloc(void *pMemory, size_t nSize) noexcept {
    return Watched(__libc_realloc(pMemory, nSize), nSize);
}

void *memalign(size_t nAlignment, size_t nSize) noexcept {
    return Watched(__libc_memalign(nAlignment, nSize), nSize);
}

void *aligned_alloc(size_t nAlignment, size_t nSize) noexcept {
    return memalign(nAlignment, nSize);
}

int posix_memalign(void **ppMemory, size_t nAlignment, size_t nSize) noexcept {
    if (nAlignment % sizeof(void *) != 0 || nAlignment == 0 || (nAlignment & (nAlignment - 1)) != 0) {
        return EINVAL;
    }
    const int iError = errno; // not this function's to change
    void *pMemory = memalign(nAlignment, nSize);
    errno = iError;
    if (pMemory == nullptr) {
        return ENOMEM;
    }
    *ppMemory = pMemory;
    return 0;
}

void free(void *pMemory) noexcept {
    __libc_free(pMemory);
}

#pragma GCC visibility pop
}

#endif
