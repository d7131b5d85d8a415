// The commands of the program: what each takes, and the functions that run them. All return the exit status.
#ifndef TARN_TOOLS_COMMANDS_COMMANDS_H
#define TARN_TOOLS_COMMANDS_COMMANDS_H

#include "tools/engine/scan_engine.h"
#include "tools/scan/report.h"

#include <string>
#include <vector>

// Exit statuses. scan: infected files win over errors, an interruption over both.
enum EExitStatus : int {
    kExitClean = 0,   // nothing found; everything known
    kExitFound = 1,   // infected files; something unknown
    kExitTrouble = 2, // errors, bad arguments included
    kExitInterrupted = 130,
};

struct _ScanOptions {
    std::vector<std::string> vecPaths;
    std::vector<std::string> vecExclude;
    std::string strRoot;
    std::string strDatabase;
    std::string strFileList;
    unsigned nThreads = 0; // 0: one for each processor this process may use
    bool bNoCache = false;
    bool bNullSeparated = false;
    _ReportOptions report;
    _ScanLimits limits;
};

struct _AskOptions {
    std::vector<std::string> vecArguments;
    std::string strRoot;
    bool bJson = false;
    bool bNullSeparated = false;
};

struct _WithdrawOptions {
    std::string strRoot;
    std::string strVersion;
    std::string strList;
};

int RunScan(const _ScanOptions &options);
int RunLookup(const _AskOptions &options);
int RunStats(const _AskOptions &options);
int RunForget(const _AskOptions &options);
int RunFind(const _AskOptions &options);
int RunWithdraw(const _WithdrawOptions &options);

// Says what went wrong and returns kExitTrouble.
int Trouble(const std::string &strText);

// Writes to standard output to its end; kExitTrouble when that fails, else the status.
int Finish(const std::string &strOutput, int status);

#endif
