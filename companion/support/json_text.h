// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// JSON as it is written piece by piece: a whole document need not fit into memory.

#include <concepts>
#include <cstddef>
#include <ostream>
#include <string>
#include <string_view>

namespace ThreadUtilities::companion {

/// With quotes. What is no UTF-8 becomes U+FFFD.
void appendJsonString(std::string& output, std::string_view text);

/// The same where `<` is written as \u003c, so that the text may
/// stand in a script of a page.
std::string jsonString(std::string_view text);

/// The text with U+FFFD in place of what is no UTF-8.
std::string validText(std::string_view text);

/// `[a,b,c]`; write(item) writes one of them.
template <typename Items, typename Write>
void writeJsonArray(std::ostream& output, const Items& items, const Write& write) {
    output << '[';
    std::string_view separator;
    for (const auto& item : items) {
        output << separator;
        write(item);
        separator = ",";
    }
    output << ']';
}

/// As above, of the numbers 0 to count - 1.
template <std::invocable<std::size_t> Write>
void writeJsonArray(std::ostream& output, std::size_t count, const Write& write) {
    output << '[';
    for (std::size_t index = 0; index < count; ++index) {
        output << (index == 0 ? "" : ",");
        write(index);
    }
    output << ']';
}

}  // namespace ThreadUtilities::companion
