// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/current.h"

#include <windows.h>

namespace ThreadUtilities::platform {

// The system keeps the id in the thread's own block: no copy of ours could be read faster, and
// none would still be there when the detach notice asks for it, after the compiler's per-thread
// objects are gone.
unsigned int currentThreadId() noexcept {
    return GetCurrentThreadId();
}

unsigned int currentProcessId() noexcept {
    return GetCurrentProcessId();
}

}  // namespace ThreadUtilities::platform
