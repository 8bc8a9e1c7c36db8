// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// One pointer that every thread has for itself.

namespace ThreadUtilities::platform {

/// The calling thread's pointer, null until it is set. Unlike a `thread_local` variable, which not
/// every system keeps so long, it can be read and written at any point of the thread's end.
void* threadPointer() noexcept;

/// For a thread that `ThreadExitCall::request` has promised a call; otherwise it may have no
/// effect.
void setThreadPointer(void* pointer) noexcept;

}  // namespace ThreadUtilities::platform
