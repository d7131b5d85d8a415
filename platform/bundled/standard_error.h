// standard_error.h - lines on standard error that nobody ever waits for.
#ifndef TARN_PLATFORM_BUNDLED_STANDARD_ERROR_H
#define TARN_PLATFORM_BUNDLED_STANDARD_ERROR_H

#include <string_view>

// Writes whole lines straight to the descriptor: the host's stream keeps its state, and nothing is buffered across a
// fork. A pipe, socket or terminal that is full takes no line; how many were dropped is said once it takes one again.
// Takes no lock. The caller holds a CWriteSignalGuard.
void WriteToStandardError(std::string_view lines) noexcept;

// Says now how many lines were dropped, if any were and it can be said.
void ReportDroppedLines() noexcept;

#endif
