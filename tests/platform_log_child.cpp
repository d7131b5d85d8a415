// The process that the logging tests look at: the logger reads its settings once per process.
#include "platform/tarncore.h"

#include <cerrno>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

int main(int, char **argv) {
    const std::string strAction = argv[1];
    const rlimit none = {0, 0};
    int ends[2] = {-1, -1};
    if ((strAction == "limited" && setrlimit(RLIMIT_FSIZE, &none) != 0) ||
        (strAction == "pipe" && (pipe(ends) != 0 || close(ends[0]) != 0 || dup2(ends[1], STDERR_FILENO) < 0))) {
        return 99;
    }
    errno = EXDEV;
    for (int nLevel = 1; nLevel <= 4; ++nLevel) {
        error_output(nLevel, "child", nLevel, "%s", argv[2]);
    }
    if (strAction == "fill") { // a little more than one file's worth, then a program that shows what it inherits
        for (int i = 0; i <= 2700; ++i) {
            error_output(2, "child", i, "%4000s", "x");
        }
        execlp("ls", "ls", "-l", "/proc/self/fd", nullptr);
    }
    if (strAction == "flood") {
        for (int i = 0; i < 1000; ++i) {
            error_output(2, "flood", 1, "number %d", i);
            error_output(2, "flood", 2, "same");
        }
    }
    if (strAction == "full") { // nobody reads the pipe at first
        static char szText[1 << 16];
        if (pipe(ends) != 0 || dup2(ends[1], STDERR_FILENO) < 0) {
            return 99;
        }
        for (int i = 0; i < 100; ++i) {
            error_output(2, "child", i, "%4000s", "x");
        }
        ssize_t nRead = read(ends[0], szText, sizeof szText);
        error_output(2, "child", 1, "after");
        nRead = read(ends[0], szText, sizeof szText);
        return write(STDOUT_FILENO, szText, static_cast<size_t>(nRead)) == nRead ? 0 : 97;
    }
    return errno == EXDEV ? is_open_debug_log_avscan() : 98;
}
