// Text helpers shared by the commands: what names, digests and numbers look like on the outside.
#ifndef TARN_TOOLS_TEXT_H
#define TARN_TOOLS_TEXT_H

#include <cstdint>
#include <string>
#include <string_view>

// True when the bytes are well-formed UTF-8.
bool IsValidUtf8(std::string_view text);

// A name fit for a line of text: control characters, direction marks and bytes that are not UTF-8 become \n, \t, \r or
// \xHH, a backslash two, so that a file name can neither forge a line of the report nor steer a terminal.
std::string EscapeName(std::string_view name);

// Lower-case hexadecimal digits of the bytes.
std::string HexText(std::string_view bytes);

// Decodes hexadecimal digits; false when the text is anything else.
bool FromHexText(std::string_view text, std::string &bytes);

// True for exactly 32 hexadecimal digits.
bool IsMD5Text(std::string_view text);

std::string LowerCase(std::string_view text);

// "1234 (1.2 KiB)".
std::string BytesText(uint64_t uBytes);

// "1:02:03" or "2:03".
std::string DurationText(double seconds);

// "PATH: text of errno", with the path escaped.
std::string ErrnoText(std::string_view path, int error);

#endif
