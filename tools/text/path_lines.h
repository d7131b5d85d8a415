// A list of paths read piece by piece; reading ends early when the scan is to stop.
#ifndef TARN_TOOLS_TEXT_PATH_LINES_H
#define TARN_TOOLS_TEXT_PATH_LINES_H

#include "support/descriptor.h"

#include <atomic>
#include <string>

class CPathLines {
  public:
    // "-" is standard input.
    CPathLines(const std::string &strList, char cSeparator, const std::atomic<bool> &stop);

    // The next path. False at the end, on an error, and when the scan is to stop.
    bool Next(std::string &strPath);

    int Error() const { return m_error; } // an errno value, or 0

  private:
    bool ReadMore();

    CDescriptor m_file; // not open for standard input
    int m_fd = 0;
    const char m_cSeparator;
    const std::atomic<bool> &m_stop;
    std::string m_strBuffer;
    size_t m_nPosition = 0;
    bool m_bEnd = false;
    int m_error = 0;
};

#endif
