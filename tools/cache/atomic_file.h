// Small files written whole or not at all, with the reason of a failure in words.
#ifndef TARN_TOOLS_CACHE_ATOMIC_FILE_H
#define TARN_TOOLS_CACHE_ATOMIC_FILE_H

#include "support/whole_file.h"

#include <string>
#include <string_view>

// As SaveWholeFile. False on failure, with the reason in strError.
bool WriteFileAtomically(const std::string &strPath, std::string_view content, mode_t newMode, EExisting eExisting,
                         std::string &strError);

// As LoadWholeFile, without following a last link. bMissing tells a file that is not there from one that cannot be
// read; strError has the reason in both cases.
bool ReadWholeFile(const std::string &strPath, size_t nLimit, std::string &strContent, bool &bMissing,
                   std::string &strError);

// Why LoadWholeFile failed.
std::string ReadFailure(const std::string &strPath, int iError);

#endif
