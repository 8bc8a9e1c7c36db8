// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/text.h"

#include <cstddef>
#include <limits>

#include "foundation/utf_conversion.h"

namespace ThreadUtilities::platform {
namespace {

/// The length as the interface reports it: 0 where it does not fit its type or the buffer.
int reported(std::size_t length, int capacity) {
    const std::size_t limit = capacity > 0 ? static_cast<std::size_t>(capacity)
                                           : std::size_t{std::numeric_limits<int>::max()};
    return length <= limit ? static_cast<int>(length) : 0;
}

}  // namespace

int convertUtf8ToWide(const char* text, int count, WideChar* out, int capacity) {
    const std::size_t length = utf8ToUtf16({text, static_cast<std::size_t>(count)}, out,
                                           static_cast<std::size_t>(capacity));
    return reported(length, capacity);
}

int convertWideToUtf8(const WideChar* text, int count, char* out, int capacity) {
    const std::size_t length = utf16ToUtf8({text, static_cast<std::size_t>(count)}, out,
                                           static_cast<std::size_t>(capacity));
    return reported(length, capacity);
}

}  // namespace ThreadUtilities::platform
