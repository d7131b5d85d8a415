// whole_file.h - small files, read and written whole or not at all. The functions return 0 or an errno value and throw
// only std::bad_alloc.
#ifndef TARN_SUPPORT_WHOLE_FILE_H
#define TARN_SUPPORT_WHOLE_FILE_H

#include "support/checked_file.h"

#include <string>
#include <string_view>
#include <sys/types.h>

// Reads a regular file of at most nLimit bytes. EISDIR, EINVAL: another kind of file; EFBIG: a larger one. strText is
// empty on failure.
[[nodiscard]] int LoadWholeFile(const char *pszPath, ELastLink eLastLink, size_t nLimit, std::string &strText);

// The same on a file that is open for reading, from its position on.
[[nodiscard]] int LoadWholeFile(const CDescriptor &file, size_t nLimit, std::string &strText);

// Reads such a file when it, and each link that leads to it, is ours; see OpenChecked and FollowLinks.
[[nodiscard]] _FileCheck LoadCheckedFile(const char *pszPath, mode_t forbidden, size_t nLimit, std::string &strText);

enum class EExisting { Replace, Keep };

// Writes a new file in the same folder, flushes it, moves it into place and flushes the folder, so that a reader or a
// crash meets the old text or the new one whole. A file that was not there gets newMode.
// What an earlier call that was killed has left is removed.
// Replace: a symbolic link is followed and stays; the file's owner and mode are kept. ENOENT for a link to nothing,
// EPERM for one that is not ours or leads to a file that is not, EISDIR and EINVAL for what is no regular file. Keep:
// whatever bears the name stays as it is, and the call succeeds. On failure the old file is in place and nothing is
// left behind; only when flushing the folder fails, as the last step, the new text is in place.
[[nodiscard]] int SaveWholeFile(const char *pszPath, std::string_view text, mode_t newMode, EExisting eExisting);

#endif
