#include "support/fork_mark.h"

#include <new>
#include <pthread.h>
#include <sys/mman.h>

std::atomic<int> CForkMark::s_ownMark = 1;
std::atomic<int> *CForkMark::s_pMark = &CForkMark::s_ownMark;
bool CForkMark::s_bOrdinaryChild = false;

void CForkMark::OnFork() noexcept {
    s_pMark->store(0, std::memory_order_relaxed);
    s_bOrdinaryChild = true;
}

void CForkMark::Make() noexcept {
    // Without memory for the handler the page does alone, and without the page the handler.
    (void)pthread_atfork(nullptr, nullptr, OnFork);
    void *const pPage = mmap(nullptr, sizeof *s_pMark, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pPage == MAP_FAILED) {
        return;
    }
    if (madvise(pPage, sizeof *s_pMark, MADV_WIPEONFORK) != 0) { // Linux before 4.14
        (void)munmap(pPage, sizeof *s_pMark);
        return;
    }
    s_pMark = new (pPage) std::atomic<int>(1);
}
