// Lines of JSON, one object each.
#ifndef TARN_TOOLS_TEXT_JSON_OUTPUT_H
#define TARN_TOOLS_TEXT_JSON_OUTPUT_H

#include "support/hex.h"
#include "tools/text/text.h"

#include <nlohmann/json.hpp>

#include <string>
#include <string_view>

using Json = nlohmann::ordered_json;

// File names need not be UTF-8, JSON has to be: in such a name every bad byte shows as U+FFFD, and a second field with
// "_hex" added to its name carries the exact bytes in hexadecimal.
inline void PutName(Json &object, const std::string &strField, std::string_view name) {
    object[strField] = std::string(name);
    if (!IsValidUtf8(name)) {
        object[strField + "_hex"] = HexText(name);
    }
}

inline std::string JsonLine(const Json &object) {
    return object.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

#endif
