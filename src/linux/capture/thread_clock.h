// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The time that a thread has spent on a processor.

#include <cstdint>
#include <optional>

namespace ThreadUtilities::platform {

/// In nanoseconds; moves while the thread runs. None for a thread that does not exist in this
/// process. That the time has not changed is a strong hint that the thread did not run, and no
/// proof: a hypervisor's share is taken off it, sometimes the whole of a short run.
std::optional<std::uint64_t> threadRunTime(unsigned int threadId) noexcept;

}  // namespace ThreadUtilities::platform
