// business_values.h - the private file config/business.ini and the update list's key in it: read by library and program
// with the same rules.
#ifndef TARN_FORMATS_BUSINESS_VALUES_H
#define TARN_FORMATS_BUSINESS_VALUES_H

#include "support/hex.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

constexpr char kKeySection[] = "avscan";
constexpr char kKeyName[] = "mor_secret";
constexpr size_t kKeySize = 14; // bytes; the file has them in hexadecimal

// The key is whole: no digit too few or too many. A base service copies what fits of any value, so the program, which
// makes and checks keys, asks this.
[[nodiscard]] constexpr bool IsKeyText(std::string_view text) noexcept {
    return text.size() == 2 * kKeySize && IsHexText(text);
}

enum class EKeyFile { Private, Shared, Unreadable };

// Reads the whole file, at most 4 MiB. Shared: group or others may read, write or execute it, as mode says, so what it
// holds is no secret and may be somebody else's. Unreadable: errno says why; ELOOP for a link, whose target others may
// choose. strText is empty unless the file is private. Throws only std::bad_alloc.
[[nodiscard]] EKeyFile LoadKeyFile(const char *pszPath, std::string &strText, mode_t &mode);

// The value in the text of an ini file, without the blanks around it. The letters' case makes no difference in the
// names, a section may come in several pieces, and of several entries the last one counts.
[[nodiscard]] std::optional<std::string_view> FindBusinessValue(std::string_view text, std::string_view section,
                                                                std::string_view name) noexcept;

#endif
