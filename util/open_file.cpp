#include "util/open_file.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

// All that an open file description has to say about signals; the host's, to be put back as it was.
class CSignalSettings {
  public:
    explicit CSignalSettings(int fd) noexcept : m_fd(fd), m_iSignal(fcntl(fd, F_GETSIG)) {
        m_bKnown = m_iSignal >= 0 && fcntl(fd, F_GETOWN_EX, &m_owner) == 0;
    }
    // Giving a lease back clears both, so they are set again in any case.
    ~CSignalSettings() {
        if (m_bKnown) {
            (void)Set(m_owner, m_iSignal);
        }
    }
    CSignalSettings(const CSignalSettings &) = delete;
    CSignalSettings &operator=(const CSignalSettings &) = delete;

    [[nodiscard]] bool Direct(int iSignal, pid_t thread) noexcept {
        return m_bKnown && Set({F_OWNER_TID, thread}, iSignal);
    }

  private:
    bool Set(const f_owner_ex &owner, int iSignal) noexcept {
        return fcntl(m_fd, F_SETOWN_EX, &owner) == 0 && fcntl(m_fd, F_SETSIG, iSignal) == 0;
    }
    int m_fd;
    int m_iSignal;
    f_owner_ex m_owner = {};
    bool m_bKnown = false;
};

// A signal that is blocked in this thread and not pending, so that the one a broken lease raises can be told and taken.
// A standard signal: a real-time one turns into SIGIO, which kills, when its queue is full. By default these are
// ignored, so nobody would be harmed should one get through.
class CBlockedSignal {
  public:
    CBlockedSignal() noexcept {
        sigset_t all;
        sigset_t pending;
        sigemptyset(&all);
        sigemptyset(&pending);
        sigemptyset(&m_taken);
        for (const int iSignal : kSignals) {
            sigaddset(&all, iSignal);
        }
        (void)pthread_sigmask(SIG_BLOCK, &all, &m_previousMask);
        (void)sigpending(&pending);
        for (const int iSignal : kSignals) {
            if (m_iSignal == 0 && sigismember(&pending, iSignal) == 0) {
                m_iSignal = iSignal;
                sigaddset(&m_taken, iSignal);
            }
        }
    }
    ~CBlockedSignal() { (void)pthread_sigmask(SIG_SETMASK, &m_previousMask, nullptr); }
    CBlockedSignal(const CBlockedSignal &) = delete;
    CBlockedSignal &operator=(const CBlockedSignal &) = delete;

    [[nodiscard]] int Number() const noexcept { return m_iSignal; } // 0: all of them are pending

    // Takes the signal of a broken lease. One that somebody sent the host since the mask was set goes back; a signal to
    // this thread comes first, so the first one taken decides.
    void Consume(int fd) noexcept {
        const timespec noWait = {0, 0};
        siginfo_t info = {};
        if (sigtimedwait(&m_taken, &info, &noWait) <= 0) {
            return;
        }
        if ((info.si_code == POLL_MSG || info.si_code == SI_SIGIO) && info.si_fd == fd) {
            return;
        }
        (void)(info.si_code == SI_TKILL ? pthread_kill(pthread_self(), m_iSignal) : kill(getpid(), m_iSignal));
    }

  private:
    static constexpr int kSignals[] = {SIGURG, SIGWINCH, SIGCHLD};
    sigset_t m_previousMask;
    sigset_t m_taken;
    int m_iSignal = 0;
};

// A map of a piece of a file, never looked into: a file that shrinks meanwhile does no harm.
class CSilentMap {
  public:
    CSilentMap(int fd, uint64_t ullOffset, size_t nSize) noexcept
        : m_nSize(nSize), m_pStart(mmap(nullptr, nSize, PROT_NONE, MAP_SHARED, fd, static_cast<off_t>(ullOffset))) {}
    ~CSilentMap() {
        if (m_pStart != MAP_FAILED) {
            (void)munmap(m_pStart, m_nSize);
        }
    }
    CSilentMap(const CSilentMap &) = delete;
    CSilentMap &operator=(const CSilentMap &) = delete;

    // Also false where the kernel does not say.
    [[nodiscard]] bool IsOutOfMemory() const noexcept {
        unsigned char abIsThere[kPages] = {};
        const auto isThere = [](unsigned char bPage) { return (bPage & 1) != 0; };
        return m_pStart != MAP_FAILED && mincore(m_pStart, m_nSize, abIsThere) == 0 &&
               std::none_of(abIsThere, abIsThere + kPages, isThere);
    }

    static constexpr size_t kPages = 4096; // at most
    static constexpr size_t kMostBytes = kPages * 4096;

  private:
    size_t m_nSize;
    void *m_pStart;
};

constexpr unsigned int kWriteAndWait = SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;

} // namespace

EWriters AskWhoWrites(int fd) noexcept {
    if (const int iHeld = fcntl(fd, F_GETLEASE); iHeld == F_RDLCK || iHeld == F_WRLCK) {
        return EWriters::None; // the host's own lease says so
    }
    CBlockedSignal signal;
    CSignalSettings settings(fd);
    if (signal.Number() == 0 || !settings.Direct(signal.Number(), gettid())) {
        return EWriters::NotTold;
    }
    if (fcntl(fd, F_SETLEASE, F_RDLCK) != 0) {
        return errno == EAGAIN ? EWriters::Some : EWriters::NotTold;
    }
    (void)fcntl(fd, F_SETLEASE, F_UNLCK); // whoever broke the lease has sent his signal before this is done
    signal.Consume(fd);
    return EWriters::None;
}

bool WriteBack(int fd, EFileSystem eKind) noexcept {
    switch (eKind) {
    case EFileSystem::Disk:
    case EFileSystem::Exchanging:
        // The pages alone: fdatasync would also empty the disk's own cache, which takes milliseconds a file.
        return sync_file_range(fd, 0, 0, kWriteAndWait) == 0;
    case EFileSystem::Overlay: {
        // An overlay keeps fdatasync from files of its lower layers, and from all files when it is mounted "volatile".
        // Asked for the place of a file it writes back the file below, and memory below has no places.
        fiemap place;
        std::memset(&place, 0, sizeof place); // it ends in an array of no size, which cannot be initialised
        place.fm_length = 1;
        place.fm_flags = FIEMAP_FLAG_SYNC;
        return ioctl(fd, FS_IOC_FIEMAP, &place) == 0;
    }
    case EFileSystem::Network:
        return fdatasync(fd) == 0;
    default:
        return false;
    }
}

bool DropPages(int fd, uint64_t ullSize) noexcept {
    // A file of holes costs its maker nothing, and a look at all of it many minutes that no signal ends.
    constexpr uint64_t kMostLookedAt = uint64_t{64} << 30U; // bytes; takes about a second
    if (ullSize > kMostLookedAt) {
        return false;
    }
    (void)sync_file_range(fd, 0, 0, kWriteAndWait); // dirty pages stay, and are then seen below
    if (posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED) != 0) {
        return false;
    }
    for (uint64_t ullDone = 0; ullDone < ullSize; ullDone += CSilentMap::kMostBytes) {
        const auto nPiece = static_cast<size_t>(std::min<uint64_t>(ullSize - ullDone, CSilentMap::kMostBytes));
        if (!CSilentMap(fd, ullDone, nPiece).IsOutOfMemory()) {
            return false;
        }
    }
    return true;
}
