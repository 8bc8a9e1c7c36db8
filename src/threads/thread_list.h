// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The threads of this process, kept by the system's notices of their starts and ends, and those
// of any process, asked for afresh.

#include <chrono>
#include <cstdint>
#include <vector>

namespace ThreadUtilities {

/// The thread on which the library was loaded, or the only thread of a fork child.
unsigned int mainThread() noexcept;

/// The threads of this process: those found at load, then the later ones in the order of their
/// start notices. Where the notices do not cover all threads, the list is corrected by what the
/// system says at this moment; nothing of that is kept, so that no notice ever adds a thread twice.
std::vector<unsigned int> ownThreads();

/// Counts the threads of this process that have announced themselves.
std::uint32_t announcedStarts() noexcept;

/// Sleeps until `time`, or until a thread announces itself that was not counted in `seen`; may
/// return early. False, at once, where the last list had threads that were not announced, or the
/// system has no such sleep.
bool sleepUntilThreadStarts(std::uint32_t seen,
                            std::chrono::steady_clock::time_point time) noexcept;

/// The threads of any process; empty when there is no such process.
std::vector<unsigned int> enumerateProcessThreads(unsigned int processId);

}  // namespace ThreadUtilities
