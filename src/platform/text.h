// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Wide text, and the system's converters between it and UTF-8.

#include <string>
#include <string_view>
#include <type_traits>

namespace ThreadUtilities {

/// One UTF-16 code unit on every system: `wchar_t` where that has 16 bits, `char16_t` elsewhere.
using WideChar = std::conditional_t<sizeof(wchar_t) == 2, wchar_t, char16_t>;
using WideString = std::basic_string<WideChar>;
using WideStringView = std::basic_string_view<WideChar>;

namespace platform {

/// Converts `count` UTF-8 bytes. With `capacity` 0 nothing is written. Returns the number of
/// UTF-16 units that the result has, 0 on failure. Every maximal ill-formed subpart becomes one
/// U+FFFD (Unicode 15, section 3.9, table 3-8).
int convertUtf8ToWide(const char* text, int count, WideChar* out, int capacity);

/// Converts `count` UTF-16 units. With `capacity` 0 nothing is written. Returns the number of
/// UTF-8 bytes that the result has, 0 on failure. An unpaired surrogate becomes U+FFFD.
int convertWideToUtf8(const WideChar* text, int count, char* out, int capacity);

}  // namespace platform
}  // namespace ThreadUtilities
