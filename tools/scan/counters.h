// What the summary tells. Written by all worker threads and the walk; each counter stands alone.
#ifndef TARN_TOOLS_SCAN_COUNTERS_H
#define TARN_TOOLS_SCAN_COUNTERS_H

#include <array>
#include <atomic>
#include <cstdint>

// Why a scanned file was not added to the cache.
enum class ENotCached {
    None, // it was added, or the cache is not in use
    Written,
    FileSystem,
    WritersUnknown,
    ChangedDuringScan,
    TooNew,
    ScanError,
    TimedOut,
    LimitExceeded,
    PathTooLong,
    Refused,
    NotStored, // the cache took it, but could not write it; found at the end, for no file in particular
    Interrupted,
};

// Why something the walk met was not looked at.
enum class ESkipped { Link, NotAFile, Excluded, KernelFiles, OwnFiles };

struct _ReasonText {
    const char *pszText; // for people
    const char *pszKey;  // for programs
};

constexpr std::array<_ReasonText, 5> kSkippedTexts = {{
    {"links", "links"},
    {"devices, pipes and sockets", "not_a_file"},
    {"excluded", "excluded"},
    {"kernel file systems", "kernel_files"},
    {"the cache's own files", "own_files"},
}};

constexpr std::array<_ReasonText, 13> kNotCachedTexts = {{
    {"", ""},
    {"open or mapped for writing", "written"},
    {"untrusted file system", "file_system"},
    {"writers cannot be told", "writers_unknown"},
    {"changed during the scan", "changed_during_scan"},
    {"changed within 2 seconds", "too_new"},
    {"scan error", "scan_error"},
    {"timed out", "timed_out"},
    {"limit exceeded", "limit_exceeded"},
    {"path too long", "path_too_long"},
    {"refused by the cache", "refused"},
    {"could not be stored", "not_stored"},
    {"interrupted", "interrupted"},
}};

struct _ScanCounters {
    std::atomic<uint64_t> nFound = 0; // files met by the walk so far
    std::atomic<bool> bWalkDone = false;

    std::atomic<uint64_t> nFiles = 0; // files with a verdict, an error included
    std::atomic<uint64_t> nFromCache = 0;
    std::atomic<uint64_t> nScanned = 0;
    std::atomic<uint64_t> nInfected = 0;
    std::atomic<uint64_t> nErrors = 0;  // files, folders and arguments
    std::atomic<uint64_t> nChanged = 0; // files without a verdict because of it; errors, too
    std::atomic<uint64_t> nLimitExceeded = 0;
    std::atomic<uint64_t> nTimedOut = 0;
    std::atomic<uint64_t> ullBytesRead = 0;
    std::atomic<uint64_t> ullBytesNotRead = 0;
    std::array<std::atomic<uint64_t>, kSkippedTexts.size()> skipped = {};
    std::array<std::atomic<uint64_t>, kNotCachedTexts.size()> notCached = {};

    void CountSkipped(ESkipped eReason) { ++skipped[static_cast<size_t>(eReason)]; }
    void CountNotCached(ENotCached eReason) { ++notCached[static_cast<size_t>(eReason)]; }
};

#endif
