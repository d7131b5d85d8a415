#include "tools/text/path_lines.h"

#include <array>
#include <poll.h>

CPathLines::CPathLines(const std::string &strList, char cSeparator, const std::atomic<bool> &stop)
    : m_cSeparator(cSeparator), m_stop(stop) {
    if (strList == "-") {
        return;
    }
    m_file = CDescriptor(open(strList.c_str(), O_RDONLY | O_CLOEXEC));
    m_fd = m_file.Get();
    if (m_fd < 0) {
        m_error = errno;
    }
}

bool CPathLines::Next(std::string &strPath) {
    size_t end = m_strBuffer.find(m_cSeparator, m_nPosition);
    while (end == std::string::npos && !m_bEnd) {
        const size_t searched = m_strBuffer.size() - m_nPosition;
        if (!ReadMore()) {
            return false;
        }
        end = m_strBuffer.find(m_cSeparator, m_nPosition + searched);
    }
    const bool bLast = end == std::string::npos;
    strPath = m_strBuffer.substr(m_nPosition, bLast ? end : end - m_nPosition);
    m_nPosition = bLast ? m_strBuffer.size() : end + 1;
    return !bLast || !strPath.empty();
}

// Waits in short steps, so that a pipe nobody writes to cannot keep the program from ending.
bool CPathLines::ReadMore() {
    m_strBuffer.erase(0, m_nPosition);
    m_nPosition = 0;
    std::array<char, 65536> piece = {};
    while (m_error == 0 && !m_stop.load()) {
        struct pollfd input = {};
        input.fd = m_fd;
        input.events = POLLIN;
        const int ready = poll(&input, 1, 100);
        if (ready == 0 || (ready < 0 && errno == EINTR)) {
            continue;
        }
        const ssize_t count = read(m_fd, piece.data(), piece.size());
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) {
            continue;
        }
        if (count < 0) {
            m_error = errno;
        }
        m_bEnd = count == 0;
        if (count > 0) {
            m_strBuffer.append(piece.data(), static_cast<size_t>(count));
        }
        return count >= 0;
    }
    return false;
}
