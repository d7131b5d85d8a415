// scan: finds infected files, and answers unchanged ones from the cache.
#ifndef TARN_TOOLS_COMMANDS_SCAN_H
#define TARN_TOOLS_COMMANDS_SCAN_H

#include "tools/commands/exit_status.h"
#include "tools/engine/scan_engine.h"
#include "tools/scan/report.h"
#include "tools/scan/run.h"

#include <string>

struct _ScanOptions {
    _ScanTargets targets;
    _ScanLimits limits;
    _ReportOptions report;
    std::string strRoot;
    std::string strDatabase; // of signatures; empty: the system's, else the program's own
    unsigned nThreads = 0;   // 0: one for each processor that this process may use
    bool bNoCache = false;
};

EExitStatus RunScan(const _ScanOptions &options);

#endif
