// The rules of what may be remembered, on the callers' threads. A verdict is remembered with a status, so it must be
// impossible that the file is read or changed otherwise while the status stays. Against that stand, in this order:
//
//   1. the moment of Begin        a file that changed less than 2 s before can change again in the same second;
//   2. the first lease            nobody has it open or mapped for writing: a page that is dirty already could be
//                                 written without a new change time;
//   3. write-back, where a map may be hidden: from then on each page's next write through a map gives a new change
//      time; and, where strangers may write, no page stays in memory: who has the kernel hold one for a write that
//      waits for its data needs neither map nor descriptor any more, and a page may differ from the disk;
//   4. the first status;
//   5. the scan;
//   6. the second lease           a map that was made meanwhile may have written already, and may go on;
//   7. the second status          who opened the file between the leases and wrote has changed it.
//
// Whom the kernel does not tell about writers has 3 alone. That does not hold against a write() that set the change
// time before 1 and still waits for its data, so it is enough only where root or the caller himself alone may write.
#include "agent/scan_bracket.h"

#include "util/open_file.h"

#include <cstring>
#include <ctime>
#include <sys/vfs.h>

namespace {

constexpr uint64_t kOpenMark = 0x6E69676562746373; // no text or zeros that a caller may have left there
constexpr int64_t kSecond = 1000000000;            // nanoseconds
constexpr int64_t kSettleTime = 2 * kSecond;

// What Begin found. Most of it keeps the verdict from being remembered, two unless the caller allows it.
constexpr uint32_t kForgeable = 1U << 0;
constexpr uint32_t kNetwork = 1U << 1;
constexpr uint32_t kRemovable = 1U << 2;
constexpr uint32_t kWritten = 1U << 3;
constexpr uint32_t kUnknown = 1U << 4;
constexpr uint32_t kNotTold = 1U << 5; // who writes; made good by a write-back where root or the caller alone may
constexpr uint32_t kRecent = 1U << 6;
constexpr uint32_t kWrittenBack = 1U << 7; // speaks for the file
constexpr uint32_t kReadOnly = 1U << 8;    // likewise: nobody can write

int64_t Nanoseconds(const timespec &time) {
    return time.tv_sec * kSecond + time.tv_nsec;
}

int64_t Now(clockid_t clock) {
    timespec now = {};
    (void)clock_gettime(clock, &now);
    return Nanoseconds(now);
}

bool IsSame(const struct stat &first, const struct stat &second) {
    return first.st_dev == second.st_dev && first.st_ino == second.st_ino && first.st_size == second.st_size &&
           Nanoseconds(first.st_mtim) == Nanoseconds(second.st_mtim) &&
           Nanoseconds(first.st_ctim) == Nanoseconds(second.st_ctim);
}

uint32_t FindingsOf(EFileSystem eKind, EMedium eMedium, const struct stat &status) {
    uint32_t ulFindings = eMedium == EMedium::Removable ? kRemovable : eMedium == EMedium::Unknown ? kUnknown : 0U;
    switch (eKind) {
    case EFileSystem::Forgeable:
        return ulFindings | kForgeable;
    case EFileSystem::Exchanging:
        return ulFindings | (IsWrittenByTrustedAlone(status) ? 0U : kForgeable);
    case EFileSystem::Network:
        return ulFindings | kNetwork;
    case EFileSystem::Memory:
    case EFileSystem::Unknown:
        return ulFindings | kUnknown;
    default:
        return ulFindings;
    }
}

uint32_t FindingsOf(EWriters eWriters) {
    return eWriters == EWriters::Some ? kWritten : eWriters == EWriters::NotTold ? kNotTold : 0U;
}

// Where a page that somebody holds in memory shows through the file, and nothing else speaks against it already.
bool IsCached(EFileSystem eKind) {
    return eKind == EFileSystem::Disk || eKind == EFileSystem::OtherDisk || eKind == EFileSystem::Overlay ||
           eKind == EFileSystem::Network;
}

// Makes up for what a lease does not say, or for one that is not granted. Takes the status anew where it did something.
// bRecent: the verdict will not be remembered anyway.
uint32_t Settle(int fd, EFileSystem eKind, EWriters eWriters, bool bRecent, struct stat &status) {
    const bool bTrusted = IsWrittenByTrustedAlone(status);
    const bool bDrop = eWriters == EWriters::None && !bTrusted && !bRecent && IsCached(eKind);
    const bool bWriteBack =
        eWriters == EWriters::None ? eKind == EFileSystem::Overlay : eWriters == EWriters::NotTold && bTrusted;
    if (!bDrop && !bWriteBack) {
        return 0;
    }
    const bool bDone = (!bWriteBack || WriteBack(fd, eKind)) &&
                       (!bDrop || DropPages(fd, static_cast<uint64_t>(status.st_size))) && fstat(fd, &status) == 0;
    return !bDone ? kUnknown : bWriteBack ? kWrittenBack : 0;
}

bool IsAllowed(const _LOCAL_CACHE_SCAN &scan, uint32_t ulFinding, uint32_t ulAllowance) {
    return (scan.ulFindings & ulFinding) == 0 || (scan.ulAllow & ulAllowance) != 0;
}

} // namespace

// A local file system takes its change times from the clock that is read here; they lag behind by a few milliseconds. A
// server has a clock of its own, which cannot be read. But it is not before the newest change time that was met there
// plus the time that went by since then. A change time after our own clock says only that one of the clocks is wrong.
uint32_t CScanBracket::FindingsAbout(int fd, const struct statfs &fileSystem, const _LOCAL_CACHE_SCAN &scan,
                                     int64_t liSteady) {
    const EFileSystem eKind = FileSystemOfType(static_cast<uint32_t>(fileSystem.f_type));
    uint64_t ullIdentity = 0;
    static_assert(sizeof fileSystem.f_fsid == sizeof ullIdentity);
    std::memcpy(&ullIdentity, &fileSystem.f_fsid, sizeof ullIdentity);
    const int64_t liChanged = Nanoseconds(scan.status.st_ctim);
    const bool bRecent = liChanged > scan.liBegun - kSettleTime; // or in the future
    const Key key = {scan.status.st_dev, ullIdentity, eKind};

    const std::lock_guard<std::mutex> guard(m_mutex);
    if (m_mountTable.HasChanged()) {
        m_mapKnown.clear();
    }
    auto it = m_mapKnown.find(key);
    if (it == m_mapKnown.end()) {
        it = m_mapKnown.emplace(key, _Known{MediumOf(fd, scan.status.st_dev, eKind), INT64_MIN / 2, liSteady}).first;
    }
    _Known &known = it->second;
    if (liChanged <= scan.liBegun && liChanged > known.liNewest + (liSteady - known.liMetAt)) {
        known.liNewest = liChanged;
        known.liMetAt = liSteady;
    }
    const bool bRecentThere =
        eKind == EFileSystem::Network && liChanged > known.liNewest + (liSteady - known.liMetAt) - kSettleTime;
    return FindingsOf(eKind, known.eMedium, scan.status) | (bRecent || bRecentThere ? kRecent : 0U);
}

bool CScanBracket::Begin(int fd, _LOCAL_CACHE_SCAN &scan) {
    const uint32_t ulSize = scan.size;
    scan = {};
    scan.size = ulSize;
    scan.liBegun = Now(CLOCK_REALTIME);
    const int64_t liSteady = Now(CLOCK_MONOTONIC);
    struct statfs fileSystem = {};
    if (fstat(fd, &scan.status) != 0 || !S_ISREG(scan.status.st_mode) || fstatfs(fd, &fileSystem) != 0) {
        return false;
    }
    const EFileSystem eKind = FileSystemOfType(static_cast<uint32_t>(fileSystem.f_type));
    if (eKind == EFileSystem::ReadOnly) {
        scan.ulFindings = kReadOnly;
    } else {
        const EWriters eWriters = AskWhoWrites(fd);
        const bool bRecent = Nanoseconds(scan.status.st_ctim) > scan.liBegun - kSettleTime;
        scan.ulFindings = FindingsOf(eWriters) | Settle(fd, eKind, eWriters, bRecent, scan.status);
    }
    scan.ulFindings |= FindingsAbout(fd, fileSystem, scan, liSteady);
    scan.lDescriptor = fd;
    scan.ullMark = kOpenMark;
    return true;
}

bool CScanBracket::IsOpen(const _LOCAL_CACHE_SCAN &scan) {
    return scan.ullMark == kOpenMark;
}

uint32_t CScanBracket::Finish(const _LOCAL_CACHE_SCAN &scan) const {
    const bool bAsk = (scan.ulFindings & (kForgeable | kWritten | kReadOnly)) == 0; // else it would change nothing
    const EWriters eWriters = bAsk ? AskWhoWrites(scan.lDescriptor) : EWriters::None;
    struct stat status = {};
    if (fstat(scan.lDescriptor, &status) != 0 || !IsSame(scan.status, status)) {
        return TARN_REMEMBER_CHANGED;
    }
    const uint32_t ulFindings = scan.ulFindings | FindingsOf(eWriters);
    if ((ulFindings & kForgeable) != 0 || !IsAllowed(scan, kNetwork, TARN_ALLOW_NETWORK) ||
        !IsAllowed(scan, kRemovable, TARN_ALLOW_REMOVABLE)) {
        return TARN_REMEMBER_FILE_SYSTEM;
    }
    if ((ulFindings & kWritten) != 0) {
        return TARN_REMEMBER_WRITTEN;
    }
    const bool bMadeGood = (ulFindings & kWrittenBack) != 0 && IsWrittenByTrustedAlone(status);
    if ((ulFindings & kUnknown) != 0 || ((ulFindings & kNotTold) != 0 && !bMadeGood)) {
        return TARN_REMEMBER_UNKNOWN;
    }
    return (ulFindings & kRecent) != 0 ? TARN_REMEMBER_RECENT : TARN_REMEMBER_YES;
}
