// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Wide text from ASCII literals, which have no common spelling for the two kinds of WideChar.

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

#include "platform/text.h"

namespace ThreadUtilities {

inline WideString wideFromAscii(std::string_view ascii) {
    return WideString(ascii.begin(), ascii.end());
}

/// An ASCII literal as a template argument; see `wide`.
template <std::size_t Size>
struct AsciiLiteral {
    // NOLINTNEXTLINE(google-explicit-constructor): this is what makes wide<"..."> possible.
    consteval AsciiLiteral(const char (&ascii)[Size]) { std::copy_n(ascii, Size, units.begin()); }

    std::array<WideChar, Size> units{};
};

/// `wide<"};">` is the wide literal, without its NUL, on every system.
template <AsciiLiteral literal>
inline constexpr WideStringView wide{literal.units.data(), literal.units.size() - 1};

}  // namespace ThreadUtilities
