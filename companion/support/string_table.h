// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "support/json_text.h"

namespace ThreadUtilities::companion {

/// Texts, each once, in the order in which they were first asked for. They belong to somebody else.
class StringTable {
 public:
    std::size_t id(std::string_view text) {
        const auto [known, isNew] = ids.try_emplace(text, texts.size());
        if (isNew) {
            texts.push_back(text);
        }
        return known->second;
    }
    void writeJson(std::ostream& output) const {
        writeJsonArray(output, texts, [&](std::string_view text) { output << jsonString(text); });
    }

 private:
    std::unordered_map<std::string_view, std::size_t> ids;
    std::vector<std::string_view> texts;
};

}  // namespace ThreadUtilities::companion
