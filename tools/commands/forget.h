// forget: deletes the records of files with certain MD5s.
#ifndef TARN_TOOLS_COMMANDS_FORGET_H
#define TARN_TOOLS_COMMANDS_FORGET_H

#include "tools/commands/exit_status.h"

#include <string>
#include <vector>

struct _ForgetOptions {
    std::vector<std::string> vecMD5; // "-" stands for a list on standard input
    std::string strRoot;
};

EExitStatus RunForget(const _ForgetOptions &options);

#endif
