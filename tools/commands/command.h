// A command of the program, and what several commands have in common.
#ifndef TARN_TOOLS_COMMANDS_COMMAND_H
#define TARN_TOOLS_COMMANDS_COMMAND_H

#include "tools/cache/cache_use.h"
#include "tools/commands/exit_status.h"

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
} // namespace CLI

// A command on the command line. It owns its options.
struct _Command {
    const CLI::App *pLine;            // tells whether the command was asked for
    std::function<EExitStatus()> run; // call it after the command line was parsed
};

// Adds a command with the option that all commands have.
CLI::App *AddCommandLine(CLI::App &app, const char *pszName, const char *pszHelp, std::string &strRoot);

// Adds the arguments that ReadMD5Arguments takes.
void AddMD5s(CLI::App *pLine, std::vector<std::string> &vecMD5);

// Runs the work with the cache in the installation folder opened, and closes it again. Says why when the cache cannot
// be opened.
EExitStatus WithCache(const std::string &strRoot, ECacheUse eUse,
                      const std::function<EExitStatus(const CInstallRoot &root)> &work);

#endif
