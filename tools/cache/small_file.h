// Small files, read and written whole or not at all, with the reason of a failure in words.
#ifndef TARN_TOOLS_CACHE_SMALL_FILE_H
#define TARN_TOOLS_CACHE_SMALL_FILE_H

#include "support/whole_file.h"

#include <string>
#include <string_view>

// As SaveWholeFile. False on failure, with the reason in strError.
bool WriteSmallFile(const std::string &strPath, std::string_view content, mode_t newMode, EExisting eExisting,
                    std::string &strError);

enum class EReadFile { Read, Missing, Failed };

// As LoadWholeFile, without following a last link. strError has the reason of Failed.
EReadFile ReadSmallFile(const std::string &strPath, size_t nLimit, std::string &strContent, std::string &strError);

// Why LoadWholeFile failed.
std::string ReadFailureText(const std::string &strPath, int iError);

#endif
