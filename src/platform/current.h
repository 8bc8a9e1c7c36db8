// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Who is calling.

namespace ThreadUtilities::platform {

/// The calling thread's id; kept per thread, renewed in a fork child.
unsigned int currentThreadId() noexcept;

unsigned int currentProcessId() noexcept;

}  // namespace ThreadUtilities::platform
