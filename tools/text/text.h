// Text helpers shared by the commands: what names and numbers look like on the outside.
#ifndef TARN_TOOLS_TEXT_TEXT_H
#define TARN_TOOLS_TEXT_TEXT_H

#include "support/utf8.h"

#include <cstdint>
#include <string>
#include <string_view>

std::string LowerCase(std::string_view text);

// "1234 (1.2 KiB)".
std::string BytesText(uint64_t ullBytes);

// "1:02:03" or "2:03".
std::string DurationText(double seconds);

// "PATH: text of errno", with the path escaped.
std::string ErrnoText(std::string_view path, int iError);

#endif
