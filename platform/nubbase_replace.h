// nubbase_replace.h - replaces a file's contents so that a reader, or a crash, meets the old text or the new one whole.
#ifndef TARN_PLATFORM_NUBBASE_REPLACE_H
#define TARN_PLATFORM_NUBBASE_REPLACE_H

#include <string_view>

// Writes text to a new file beside path and renames it over path, keeping mode and owner (0600 for a file that was not
// there). A symbolic link is followed. Returns 0, or an errno value with the old file in place and nothing left behind.
// Throws only std::bad_alloc.
[[nodiscard]] int ReplaceFile(const char *path, std::string_view text);

#endif
