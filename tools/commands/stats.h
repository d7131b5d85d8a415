// stats: how much the cache holds, and what waits for the next scan.
#ifndef TARN_TOOLS_COMMANDS_STATS_H
#define TARN_TOOLS_COMMANDS_STATS_H

#include "tools/commands/exit_status.h"

#include <string>

struct _StatsOptions {
    std::string strRoot;
    bool bJson = false;
};

EExitStatus RunStats(const _StatsOptions &options);

#endif
