// Small files written whole or not at all.
#ifndef TARN_TOOLS_ATOMIC_FILE_H
#define TARN_TOOLS_ATOMIC_FILE_H

#include <string>
#include <string_view>
#include <sys/types.h>

enum class EExisting { Replace, Keep };

// Writes a temporary file beside the path, syncs it, moves it into place and syncs the folder. With EExisting::Keep a
// file that is there already stays and the call succeeds. False on failure, with the reason in *strError.
bool WriteFileAtomically(const std::string &strPath, std::string_view content, mode_t mode, EExisting eExisting,
                         std::string &strError);

// Reads a whole regular file of at most uLimit bytes, without following a last link. *bMissing tells a file that is
// not there from one that cannot be read.
bool ReadWholeFile(const std::string &strPath, uint64_t uLimit, std::string &strContent, bool &bMissing,
                   std::string &strError);

#endif
