// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Names of threads, as the system and its debuggers know them.

#include <string>
#include <string_view>

namespace ThreadUtilities::platform {

/// Names the calling thread; an empty name takes its name away. `name` is well-formed UTF-8
/// without NULs, of any length; a system that keeps less keeps whole characters. Quiet when the
/// system refuses.
void setOwnThreadName(std::string_view name);

/// The name of a thread of any process: UTF-8 that other code may have left malformed. Empty when
/// the thread has no name of its own, does not exist or may not be inspected.
std::string readThreadName(unsigned int threadId);

}  // namespace ThreadUtilities::platform
