// business_values.h - the private file config/business.ini and the update list's key in it.
#ifndef TARN_FORMATS_BUSINESS_VALUES_H
#define TARN_FORMATS_BUSINESS_VALUES_H

#include "support/descriptor.h"

#include <cstddef>
#include <sys/types.h>

constexpr char kKeySection[] = "avscan";
constexpr char kKeyName[] = "mor_secret";
constexpr size_t kKeySize = 14; // bytes; the file has them in hexadecimal

enum class EKeyFile { Private, Shared, Unreadable };

// Opens the file for reading. Shared: group or others may read, write or execute it, as mode says, so what it holds is
// no secret and may be somebody else's. Unreadable: errno says why; ELOOP for a link, whose target others may choose.
[[nodiscard]] EKeyFile OpenKeyFile(const char *pszPath, CDescriptor &file, mode_t &mode) noexcept;

#endif
