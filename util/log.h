// log.h - one macro per log level over the product's logging service.
//
// A source file names itself once: constexpr char kLogSource[] = "dbagent"; the macros add line and function name,
// which every format takes as its first "%s". Code that logs on behalf of another function uses TARN_LOG_AS.
#ifndef TARN_UTIL_LOG_H
#define TARN_UTIL_LOG_H

#include "platform/tarncore.h"

enum class ELogLevel : int { Severe = 1, Error = 2, Info = 3, Debug = 4 };

#define TARN_LOG_AS(level, function, format, ...)                                                                      \
    error_output(static_cast<int>(level), kLogSource, __LINE__, format, function __VA_OPT__(, ) __VA_ARGS__)

#define TARN_LOG_SEVERE(format, ...) TARN_LOG_AS(ELogLevel::Severe, __func__, format __VA_OPT__(, ) __VA_ARGS__)
#define TARN_LOG_ERROR(format, ...) TARN_LOG_AS(ELogLevel::Error, __func__, format __VA_OPT__(, ) __VA_ARGS__)
#define TARN_LOG_INFO(format, ...) TARN_LOG_AS(ELogLevel::Info, __func__, format __VA_OPT__(, ) __VA_ARGS__)

// Debug lines cost their arguments only while they are wanted.
#define TARN_LOG_DEBUG_AS(function, format, ...)                                                                       \
    do {                                                                                                               \
        if (is_open_debug_log_avscan() != 0) {                                                                         \
            TARN_LOG_AS(ELogLevel::Debug, function, format __VA_OPT__(, ) __VA_ARGS__);                                \
        }                                                                                                              \
    } while (false)
#define TARN_LOG_DEBUG(format, ...) TARN_LOG_DEBUG_AS(__func__, format __VA_OPT__(, ) __VA_ARGS__)

#endif
