// log_text.h - the text of a log line.
#ifndef TARN_PLATFORM_BUNDLED_LOG_TEXT_H
#define TARN_PLATFORM_BUNDLED_LOG_TEXT_H

#include <string>
#include <string_view>

// As error_output takes them; 0 turns the log off.
constexpr int kLevelOff = 0;
constexpr int kLevelSevere = 1;
constexpr int kLevelError = 2;
constexpr int kLevelInfo = 3;
constexpr int kLevelDebug = 4;
constexpr const char *kLevelNames[] = {"off", "severe", "error", "info", "debug"};

// One line with its line end: "2024-05-01T09:30:00.123Z error 4711/4712 dbagent:88 message", time in UTC, process and
// thread id. Source and message are escaped: file names are chosen by strangers. Throws only std::bad_alloc.
[[nodiscard]] std::string FormatLogLine(int iLevel, std::string_view source, int iLine, std::string_view message);

#endif
