// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The signal handler that answers capture requests on the thread that they are for.

#include <csignal>
#include <cstdint>

namespace ThreadUtilities::platform {

/// What `rt_tgsigqueueinfo` is given to call the handler on a thread. It names that thread, which
/// saves the handler a system call, and no request: the handler finds those by the thread's id.
siginfo_t captureSignalInfo(int number, unsigned int threadId) noexcept;

/// The handler. Answers the requests of this copy of the library; signals that are not its own go
/// to `previousAction`.
void onCaptureSignal(int number, siginfo_t* info, void* interrupted) noexcept;

/// How much stack must be left below a handler's frame for it to walk: what it takes with all that
/// it calls is less. With less room it answers without frames.
inline constexpr std::uintptr_t handlerRoom = 4096;

}  // namespace ThreadUtilities::platform
