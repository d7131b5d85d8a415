#include "tools/text/path_lines.h"

#include "support/descriptor.h"

#include <array>
#include <cerrno>
#include <poll.h>
#include <system_error>

namespace {

constexpr int kPollStep = 100;            // milliseconds
constexpr size_t kLongestLine = 1u << 20; // bytes; no path that can be opened is that long

enum class ERead { Piece, End, Stopped, Failed };

// Adds the next piece of the input to the text. Waits in short steps, so that a pipe nobody writes to cannot keep the
// program from ending.
ERead ReadPiece(int fd, const std::atomic<bool> &bStop, std::string &strText) {
    std::array<char, 65536> piece = {};
    while (!bStop.load()) {
        struct pollfd input = {};
        input.fd = fd;
        input.events = POLLIN;
        const int iReady = poll(&input, 1, kPollStep);
        if (iReady == 0 || (iReady < 0 && errno == EINTR)) {
            continue;
        }
        const ssize_t nRead = read(fd, piece.data(), piece.size());
        if (nRead > 0) {
            strText.append(piece.data(), static_cast<size_t>(nRead));
            return ERead::Piece;
        }
        if (nRead == 0) {
            return ERead::End;
        }
        if (errno != EINTR && errno != EAGAIN) {
            return ERead::Failed;
        }
    }
    return ERead::Stopped;
}

// Hands over the paths that the text holds whole, and leaves the rest. There is no separator in the first nSearched
// bytes. False once no more are wanted.
bool TakePaths(std::string &strText, size_t nSearched, char cSeparator,
               const std::function<bool(const std::string &)> &onPath) {
    size_t nStart = 0;
    for (size_t nEnd = strText.find(cSeparator, nSearched); nEnd != std::string::npos;
         nEnd = strText.find(cSeparator, nStart)) {
        if (!onPath(strText.substr(nStart, nEnd - nStart))) {
            return false;
        }
        nStart = nEnd + 1;
    }
    strText.erase(0, nStart);
    return true;
}

} // namespace

bool ReadPathLines(const std::string &strList, char cSeparator, const std::atomic<bool> &bStop,
                   const std::function<bool(const std::string &strPath)> &onPath, std::string &strError) {
    const bool bStandardInput = strList == "-";
    // A pipe that nobody has opened for writing yet is waited for in ReadPiece, where a signal ends it.
    const CDescriptor file(bStandardInput ? -1 : open(strList.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    std::string strText;
    ERead eRead = bStandardInput || file.IsOpen() ? ERead::Piece : ERead::Failed;
    bool bWanted = true;
    while (eRead == ERead::Piece && bWanted) {
        const size_t nSearched = strText.size();
        eRead = ReadPiece(bStandardInput ? STDIN_FILENO : file.Get(), bStop, strText);
        bWanted = eRead != ERead::Piece || TakePaths(strText, nSearched, cSeparator, onPath);
        if (strText.size() > kLongestLine) { // somebody else's list must not take all memory
            strError = "a line is longer than any path";
            return false;
        }
    }
    if (eRead == ERead::Failed) {
        strError = std::generic_category().message(errno);
        return false;
    }
    if (eRead == ERead::End && !strText.empty()) {
        (void)onPath(strText); // the last line may lack its end
    }
    return true;
}
