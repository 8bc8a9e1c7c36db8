// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Time and processors as the sampling workers see them.

#include <atomic>
#include <chrono>
#include <cstdint>

namespace ThreadUtilities::platform {

std::chrono::steady_clock::time_point steadyNow() noexcept;

/// Returns at once when `time` is past.
void sleepUntil(std::chrono::steady_clock::time_point time);

/// The same, but over as soon as `wakeSleepers` is called for a `word` that does not hold `seen`
/// any more; may return early for no reason. False, at once, where the system has no such sleep.
bool sleepUntilOrWoken(std::chrono::steady_clock::time_point time,
                       const std::atomic<std::uint32_t>& word, std::uint32_t seen) noexcept;

/// Context: any thread that may call the system.
void wakeSleepers(const std::atomic<std::uint32_t>& word) noexcept;

/// Has the sleeps of the calling thread end as soon after their time as the system can; systems
/// delay them otherwise, to wake several threads at once.
void sleepPrecisely() noexcept;

/// Hardware threads of the machine; 0 when unknown.
unsigned int hardwareThreads() noexcept;

}  // namespace ThreadUtilities::platform
