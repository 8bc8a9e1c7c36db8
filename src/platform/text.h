// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// UTF-8 towards the library's users, UTF-16 towards the system.

#include <string>
#include <string_view>
#include <type_traits>

namespace ThreadUtilities {

/// One UTF-16 code unit on every system: `wchar_t` where that has 16 bits, `char16_t` elsewhere.
using WideChar = std::conditional_t<sizeof(wchar_t) == 2, wchar_t, char16_t>;
using WideString = std::basic_string<WideChar>;
using WideStringView = std::basic_string_view<WideChar>;

/// Conversions never fail over what a text contains: every maximal ill-formed subpart (Unicode 15,
/// section 3.9, table 3-8), and each unpaired surrogate, becomes one U+FFFD. NULs are characters
/// like any other; nothing is normalised. Empty where the system refuses, which it may do for texts
/// of 2^31 units and more.
WideString utf8ToWide(std::string_view text);
std::string wideToUtf8(WideStringView text);

}  // namespace ThreadUtilities
