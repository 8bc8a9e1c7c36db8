// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/text.h"

#include <windows.h>

namespace ThreadUtilities::platform {

// Flags 0: malformed input is replaced, not refused.

int convertUtf8ToWide(const char* text, int count, WideChar* out, int capacity) {
    return MultiByteToWideChar(CP_UTF8, 0, text, count, out, capacity);
}

int convertWideToUtf8(const WideChar* text, int count, char* out, int capacity) {
    return WideCharToMultiByte(CP_UTF8, 0, text, count, out, capacity, nullptr, nullptr);
}

}  // namespace ThreadUtilities::platform
