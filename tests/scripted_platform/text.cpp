// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/text.h"

#include <cstddef>

#include "platform/linux/utf_conversion.h"

namespace ThreadUtilities::platform {

int convertUtf8ToWide(const char* text, int count, WideChar* out, int capacity) {
    return static_cast<int>(utf8ToUtf16({text, static_cast<std::size_t>(count)}, out,
                                        static_cast<std::size_t>(capacity)));
}

int convertWideToUtf8(const WideChar* text, int count, char* out, int capacity) {
    return static_cast<int>(utf16ToUtf8({text, static_cast<std::size_t>(count)}, out,
                                        static_cast<std::size_t>(capacity)));
}

}  // namespace ThreadUtilities::platform
