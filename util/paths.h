// paths.h - the buffer that every path of the cache lives in.
#ifndef TARN_UTIL_PATHS_H
#define TARN_UTIL_PATHS_H

#include <cstddef>

constexpr size_t kPathSize = 4096; // bytes with the NUL, the platform's path limit

#endif
