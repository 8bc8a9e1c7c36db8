// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "support/json_text.h"

#include <algorithm>
#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace ThreadUtilities::companion {

void appendJsonString(std::string& output, std::string_view text) {
    const bool isPlain = std::all_of(text.begin(), text.end(), [](char character) {
        return character >= ' ' && character <= '~' && character != '"' && character != '\\';
    });
    if (isPlain) {
        output.append(1, '"').append(text).append(1, '"');
    } else {
        output +=
            nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    }
}

std::string jsonString(std::string_view text) {
    std::string result;
    appendJsonString(result, text);
    for (std::size_t at = result.find('<'); at != std::string::npos; at = result.find('<', at)) {
        result.replace(at, 1, "\\u003c");
    }
    return result;
}

std::string validText(std::string_view text) {
    return nlohmann::json::parse(jsonString(text)).get<std::string>();
}

}  // namespace ThreadUtilities::companion
