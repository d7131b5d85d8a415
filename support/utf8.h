// utf8.h - text that strangers chose, made fit for a line of a log or a report.
#ifndef TARN_SUPPORT_UTF8_H
#define TARN_SUPPORT_UTF8_H

#include <string>
#include <string_view>

// True when the bytes are well-formed UTF-8.
[[nodiscard]] bool IsValidUtf8(std::string_view text) noexcept;

// Control characters, direction marks and bytes that are not UTF-8 become \n, \t, \r or \xHH, and a backslash becomes
// two, so that a file name can neither forge a line nor steer a terminal.
[[nodiscard]] std::string EscapeName(std::string_view name);

// The same, added to strOut.
void AppendEscaped(std::string &strOut, std::string_view text);

#endif
