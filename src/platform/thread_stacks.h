// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Where the calling thread's stack lies, for the library's own unwinder.

#include "platform/memory.h"

namespace ThreadUtilities::platform {

/// The calling thread's own stack from about the stack pointer upward, of which single pages may be
/// unreadable; empty when it is not known, or when the thread runs on another stack than its own.
/// No allocation, no lock.
ReadableRange currentStackRange() noexcept;

}  // namespace ThreadUtilities::platform
