// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Time and processors as the sampling workers see them.

#include <chrono>

namespace ThreadUtilities::platform {

std::chrono::steady_clock::time_point steadyNow() noexcept;

/// Returns at once when `time` is past.
void sleepUntil(std::chrono::steady_clock::time_point time);

/// Has the sleeps of the calling thread end as soon after their time as the system can; systems
/// delay them otherwise, to wake several threads at once.
void sleepPrecisely() noexcept;

/// Hardware threads of the machine; 0 when unknown.
unsigned int hardwareThreads() noexcept;

}  // namespace ThreadUtilities::platform
