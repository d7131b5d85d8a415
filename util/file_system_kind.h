// file_system_kind.h - what a file's status is worth on each kind of file system.
#ifndef TARN_UTIL_FILE_SYSTEM_KIND_H
#define TARN_UTIL_FILE_SYSTEM_KIND_H

#include <cstdint>

enum class EFileSystem {
    Disk,       // once written back, a file gets a new change time from every first write through a map
    Exchanging, // as Disk, but who may write a file can exchange its contents without a new change time
    Overlay,    // as Disk, but a map holds the file below, so a lease says nothing about maps
    OtherDisk,  // nothing is known of it but what a lease says
    ReadOnly,   // nobody writes
    Memory,     // a page that a map has read is written without a new change time
    Network,    // another machine's
    Forgeable,  // a status is made up or can be set: user space, kernel texts, no change time of its own
    Unknown
};

// type: f_type of statfs.
[[nodiscard]] EFileSystem FileSystemOfType(uint32_t ulType);

#endif
