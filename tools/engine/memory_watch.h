// Whether this process was refused memory. Some of the engine's unpackers go on without what they did not get and say
// nothing; the file would then be called clean unseen.
#ifndef TARN_TOOLS_ENGINE_MEMORY_WATCH_H
#define TARN_TOOLS_ENGINE_MEMORY_WATCH_H

#include <cstdint>

// How many allocations have failed so far, whoever asked and on whatever thread. Always 0 where the program does not
// see its allocations: in builds with a sanitizer and with another C library than glibc.
[[nodiscard]] uint64_t FailedAllocations() noexcept;

#endif
