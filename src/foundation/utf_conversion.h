// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// UTF-8 and UTF-16 with the replacement rule of platform/text.h. Plain logic without the system,
// because the C library's converters stop at malformed text.

#include <cstddef>
#include <string_view>

#include "platform/text.h"

namespace ThreadUtilities::platform {

/// Writes the converted text to `out`, which has room for `capacity` units, and returns its
/// length. With `out` null, or where the room does not suffice, nothing lies beyond `capacity` and
/// the length is that of the whole result all the same.
std::size_t utf8ToUtf16(std::string_view text, WideChar* out, std::size_t capacity) noexcept;
std::size_t utf16ToUtf8(WideStringView text, char* out, std::size_t capacity) noexcept;

}  // namespace ThreadUtilities::platform
