// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

namespace ThreadUtilities::platform {

/// Whether a debugger traces the calling thread now; debuggers attach to all threads. False when
/// that cannot be told. Allocates nothing, takes no lock, keeps nothing open.
bool isDebuggerAttached() noexcept;

}  // namespace ThreadUtilities::platform
