// fork_mark.h - tells a forked child from the process that it was copied from, for the price of a memory access.
#ifndef TARN_SUPPORT_FORK_MARK_H
#define TARN_SUPPORT_FORK_MARK_H

#include <atomic>

// Set when the library is loaded. Lies on a page that the kernel hands to a child emptied, whichever system call makes
// the child; where the kernel cannot do that, a handler of fork() clears it.
class CForkMark {
  public:
    // False in a child and its children, until one of them sets it anew.
    [[nodiscard]] static bool IsSet() noexcept { return s_pMark->load(std::memory_order_relaxed) != 0; }
    static void Set() noexcept { s_pMark->store(1, std::memory_order_relaxed); }
    // True in a child that fork() itself has made: a bare system call leaves the locks of malloc and of the log as
    // other threads held them.
    [[nodiscard]] static bool IsOrdinaryChild() noexcept { return s_bOrdinaryChild; }

  private:
    static void Make() noexcept __attribute__((constructor));
    static void OnFork() noexcept;

    static std::atomic<int> s_ownMark;
    static std::atomic<int> *s_pMark;
    static bool s_bOrdinaryChild;
};

#endif
