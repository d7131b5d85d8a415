// log_text.h - the text of a log line.
#ifndef TARN_PLATFORM_LOG_TEXT_H
#define TARN_PLATFORM_LOG_TEXT_H

#include <string>
#include <string_view>

// One line with its line end: "2024-05-01T09:30:00.123Z error 4711/4712 dbagent:88 message", time in UTC, process and
// thread id. Source and message are escaped: file names are chosen by strangers. Throws only std::bad_alloc.
std::string FormatLogLine(int nLevel, std::string_view source, int nLine, std::string_view message);

#endif
