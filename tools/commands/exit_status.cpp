#include "tools/commands/exit_status.h"

#include "tools/text/text.h"

#include <cerrno>
#include <cstdio>

void PrintMessage(const std::string &strText) {
    (void)std::fputs(("tarncache: " + strText + "\n").c_str(), stderr);
}

EExitStatus Fail(const std::string &strText) {
    PrintMessage(strText);
    return EExitStatus::Failure;
}

EExitStatus FinishWith(const std::string &strOutput, EExitStatus eStatus) {
    const bool bWritten = std::fwrite(strOutput.data(), 1, strOutput.size(), stdout) == strOutput.size();
    if (bWritten && std::fflush(stdout) == 0) {
        return eStatus;
    }
    return Fail(ErrnoText("standard output", errno));
}
