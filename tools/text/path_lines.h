// Lists of paths, read piece by piece.
#ifndef TARN_TOOLS_TEXT_PATH_LINES_H
#define TARN_TOOLS_TEXT_PATH_LINES_H

#include <atomic>
#include <functional>
#include <string>

// Calls onPath with each path of the list, which may be empty, until the list ends, onPath returns false or bStop is
// set. strList: a file, or "-" for standard input. False when the list cannot be read to its end, with the text of the
// error in strError.
bool ReadPathLines(const std::string &strList, char cSeparator, const std::atomic<bool> &bStop,
                   const std::function<bool(const std::string &strPath)> &onPath, std::string &strError);

#endif
