// How a command ends, and what it says then.
#ifndef TARN_TOOLS_COMMANDS_EXIT_STATUS_H
#define TARN_TOOLS_COMMANDS_EXIT_STATUS_H

#include <string>

// The program's exit status. In a scan infected files win over errors, and an interruption wins over both.
enum class EExitStatus : int {
    Success = 0,   // nothing infected; everything known
    Attention = 1, // infected files; something unknown
    Failure = 2,   // errors, bad arguments included
    Interrupted = 130,
};

// Writes "tarncache: TEXT" to standard error.
void PrintMessage(const std::string &strText);

// Says what went wrong and returns EExitStatus::Failure.
[[nodiscard]] EExitStatus Fail(const std::string &strText);

// Writes the output to standard output and flushes it; EExitStatus::Failure when that fails, else eStatus.
[[nodiscard]] EExitStatus FinishWith(const std::string &strOutput, EExitStatus eStatus);

#endif
