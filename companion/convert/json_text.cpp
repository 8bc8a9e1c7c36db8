// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "convert/json_text.h"

#include <nlohmann/json.hpp>

namespace ThreadUtilities::companion {

std::string jsonString(std::string_view text) {
    std::string result =
        nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    for (std::size_t at = result.find('<'); at != std::string::npos; at = result.find('<', at)) {
        result.replace(at, 1, "\\u003c");
    }
    return result;
}

std::string validText(std::string_view text) {
    return nlohmann::json::parse(jsonString(text)).get<std::string>();
}

}  // namespace ThreadUtilities::companion
