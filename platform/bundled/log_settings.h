// log_settings.h - the level and the file that the environment or the configuration asks for.
#ifndef TARN_PLATFORM_BUNDLED_LOG_SETTINGS_H
#define TARN_PLATFORM_BUNDLED_LOG_SETTINGS_H

#include "platform/bundled/log_text.h"

#include <optional>
#include <string>

struct _LogSettings {
    int iLevel = kLevelError;
    std::string strFile; // absolute; empty: standard error
};

// None when memory or descriptors are short: to be asked again later. Throws only std::bad_alloc.
[[nodiscard]] std::optional<_LogSettings> ReadLogSettings();

#endif
