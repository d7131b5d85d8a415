// tarncache: scans files with libclamav behind the cache of libtarncache, and looks after that cache.
#include "tools/commands/commands.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <exception>
#include <fcntl.h>
#include <unistd.h>

namespace {

// A program started with one of these closed would give its number to the next file it opens, and write messages there.
bool KeepStandardStreams() {
    for (int fd = open("/dev/null", O_RDWR); fd >= 0; fd = open("/dev/null", O_RDWR)) {
        if (fd > STDERR_FILENO) {
            return close(fd) == 0;
        }
    }
    return false;
}

EExitStatus Run(int argc, char **argv) {
    CLI::App app("Antivirus scanning with a persistent cache of scan results.", "tarncache");
    app.set_version_flag("--version", std::string("tarncache ") + TARN_VERSION);
    app.require_subcommand(1);
    const std::array<_Command, 6> commands = {AddScan(app),   AddLookup(app), AddStats(app),
                                              AddForget(app), AddFind(app),   AddWithdraw(app)};
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? EExitStatus::Success : EExitStatus::Failure;
    }
    const auto *const pAsked =
        std::find_if(commands.begin(), commands.end(), [](const _Command &command) { return command.pLine->parsed(); });
    return pAsked->run();
}

} // namespace

int main(int argc, char **argv) {
    if (!KeepStandardStreams()) {
        return static_cast<int>(EExitStatus::Failure);
    }
    try {
        return static_cast<int>(Run(argc, argv));
    } catch (const std::exception &error) {
        return static_cast<int>(Fail(error.what()));
    }
}
