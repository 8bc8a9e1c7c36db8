// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// What the kernel tells of a thread of this process.

#include <cstdint>
#include <optional>

namespace ThreadUtilities::platform {

struct ThreadStatus {
    enum class Reading {
        Known,
        Gone,     ///< there is no such thread in this process
        Unknown,  ///< `/proc` is missing, or counts threads in other numbers than this process
    };
    Reading reading = Reading::Unknown;
    char state = '?';       ///< the letter that proc(5) has: R S D T t Z X I
    bool isTraced = false;  ///< by a debugger
    /// Seccomp, strict or by a filter that the calling thread does not have.
    bool hasSystemCallFilter = false;
    std::uint64_t pendingSignals = 0;  ///< sent to the thread itself; bit n-1 stands for signal n
    std::uint64_t blockedSignals = 0;
};

/// All in one reading. Keeps no file open, takes no lock, allocates nothing. `keptFile` is the
/// thread's, kept open by the caller, or negative.
ThreadStatus readThreadStatus(unsigned int threadId, int keptFile = -1) noexcept;

/// The time that a thread has spent on a processor, in nanoseconds; moves while the thread runs.
/// None for a thread that does not exist in this process. That the time has not changed is a strong
/// hint that the thread did not run, and no proof: a hypervisor's share is taken off it, sometimes
/// the whole of a short run.
std::optional<std::uint64_t> threadRunTime(unsigned int threadId) noexcept;

/// Whether bit n-1 of `signals` is set for signal n.
constexpr bool containsSignal(std::uint64_t signals, int signal) {
    return (signals >> (signal - 1) & 1) != 0;
}

}  // namespace ThreadUtilities::platform
