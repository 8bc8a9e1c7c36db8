// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/debugger.h"

#include "scripted_platform/debugger_script.h"

namespace ThreadUtilities {

bool platform::isDebuggerAttached() noexcept {
    return scripted::debuggerAttached;
}

}  // namespace ThreadUtilities
