// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/debugger.h"

#include <windows.h>

namespace ThreadUtilities::platform {

bool isDebuggerAttached() noexcept {
    return IsDebuggerPresent() != 0;
}

}  // namespace ThreadUtilities::platform
