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
    return errno == EXDEV ? is_open_debug_log_avscan() : 98;
}
