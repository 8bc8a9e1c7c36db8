// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// Small readers that take what they understand off the front of a text.

#include <cstdint>
#include <optional>
#include <string_view>

namespace ThreadUtilities::companion {

inline bool takeText(std::string_view& text, std::string_view expected) {
    if (!text.starts_with(expected)) {
        return false;
    }
    text.remove_prefix(expected.size());
    return true;
}

/// Decimal, without sign; nothing, and nothing taken, where it is none or too large.
inline std::optional<std::uint64_t> takeNumber(std::string_view& text) {
    std::uint64_t value = 0;
    std::size_t length = 0;
    for (; length < text.size() && text[length] >= '0' && text[length] <= '9'; ++length) {
        const auto digit = static_cast<std::uint64_t>(text[length] - '0');
        if (value > (UINT64_MAX - digit) / 10) {
            return std::nullopt;
        }
        value = value * 10 + digit;
    }
    if (length == 0) {
        return std::nullopt;
    }
    text.remove_prefix(length);
    return value;
}

/// `[NUMBER]: `
inline std::optional<std::uint64_t> takeCount(std::string_view& text) {
    std::string_view rest = text;
    if (!takeText(rest, "[")) {
        return std::nullopt;
    }
    const auto count = takeNumber(rest);
    if (!count || !takeText(rest, "]: ")) {
        return std::nullopt;
    }
    text = rest;
    return count;
}

}  // namespace ThreadUtilities::companion
