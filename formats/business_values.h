// business_values.h - the private file config/business.ini and the update list's key in it: read by library and program
// with the same rules.
#ifndef TARN_FORMATS_BUSINESS_VALUES_H
#define TARN_FORMATS_BUSINESS_VALUES_H

#include "support/checked_file.h"
#include "support/hex.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

constexpr char kKeySection[] = "avscan";
constexpr char kKeyName[] = "mor_secret";
constexpr size_t kKeySize = 14; // bytes; the file has them in hexadecimal

// The key is whole: no digit too few or too many. A base service copies what fits of any value, so the program, which
// makes and checks keys, asks this.
[[nodiscard]] constexpr bool IsKeyText(std::string_view text) noexcept {
    return text.size() == 2 * kKeySize && IsHexText(text);
}

// Reads the whole file, at most 4 MiB, when it is private: a regular file of root or of the effective user with one
// name, which nobody else may read, write or execute. A link is refused, since others may choose its target. strText is
// empty on failure. Throws only std::bad_alloc.
[[nodiscard]] _FileCheck LoadKeyFile(const char *pszPath, std::string &strText);

// The value in the text of an ini file, without the blanks around it. The letters' case makes no difference in the
// names, a section may come in several pieces, and of several entries the last one counts.
[[nodiscard]] std::optional<std::string_view> FindBusinessValue(std::string_view text, std::string_view section,
                                                                std::string_view name) noexcept;

#endif
