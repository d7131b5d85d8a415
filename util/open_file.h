// open_file.h - what the kernel says of a file that is open. No state; any thread, but one at a time for each open file
// description, whose owner and signal are borrowed meanwhile.
#ifndef TARN_UTIL_OPEN_FILE_H
#define TARN_UTIL_OPEN_FILE_H

#include "util/file_system_kind.h"

#include <cstdint>

// Who has the file open or mapped for writing.
enum class EWriters {
    None,
    Some,
    NotTold // neither root's right to leases nor the owner's, or a file system without them
};

// Asks for a read lease, which is granted only while nobody writes, and gives it back at once: who opens the file for
// writing meanwhile waits for microseconds, or gets EWOULDBLOCK with O_NONBLOCK. A lease of the host's own stays.
[[nodiscard]] EWriters AskWhoWrites(int fd) noexcept;

// Writes the file's dirty pages back and waits for it, so that each page's next write through any map gives a new
// change time. False: it failed, or nothing says that it has this effect.
[[nodiscard]] bool WriteBack(int fd, EFileSystem eKind) noexcept;

// Lets the file's pages go from memory, dirty ones after writing them back, so that the next read comes from the disk.
// False: some stayed. Whoever holds one may yet write into it, without map, descriptor or new change time; or its
// content may be another than what lies on the disk. A program that runs or maps the file holds its pages as well.
[[nodiscard]] bool DropPages(int fd, uint64_t ullSize) noexcept;

#endif
