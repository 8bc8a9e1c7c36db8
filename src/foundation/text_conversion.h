// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// UTF-8 towards the library's users, UTF-16 towards the system.

#include <string>
#include <string_view>

#include "platform/text.h"

namespace ThreadUtilities {

/// Conversions never fail over what a text contains: each malformed sequence, and each unpaired
/// surrogate, becomes U+FFFD. NULs are characters like any other; nothing is normalised. Empty
/// when the system refuses, or when the text has 2^31 units or more.
WideString utf8ToWide(std::string_view text);
std::string wideToUtf8(const WideString& text);
std::string wideToUtf8(WideStringView text);

}  // namespace ThreadUtilities
