// withdraw: what an updater does to take verdicts on single files back. Leaves the enciphered list and its marker for
// the next start of the cache.
#ifndef TARN_TOOLS_COMMANDS_WITHDRAW_H
#define TARN_TOOLS_COMMANDS_WITHDRAW_H

#include "tools/commands/exit_status.h"

#include <string>

struct _WithdrawOptions {
    std::string strRoot;
    std::string strVersion; // of the engine update
    std::string strList;    // a file; empty and "-" stand for standard input
};

EExitStatus RunWithdraw(const _WithdrawOptions &options);

#endif
