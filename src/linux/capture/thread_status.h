// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// What the kernel tells of a thread of this process, in one reading.

#include <cstdint>

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

/// Keeps no file open, takes no lock, allocates nothing. `keptFile` is the thread's, kept open by
/// the caller, or negative.
ThreadStatus readThreadStatus(unsigned int threadId, int keptFile = -1) noexcept;

/// Whether bit n-1 of `signals` is set for signal n.
constexpr bool containsSignal(std::uint64_t signals, int signal) {
    return (signals >> (signal - 1) & 1) != 0;
}

}  // namespace ThreadUtilities::platform
