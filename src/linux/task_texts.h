// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// What the kernel writes about one thread, read from its text (proc(5), below /proc/pid/task/tid).

#include <optional>
#include <string_view>

#include "platform/run_witness.h"
#include "platform/thread_context.h"

namespace ThreadUtilities::platform {

/// Where a thread stands that is off the processors.
struct BlockedAt {
    /// Instruction and stack pointer and, in a system call, its arguments: Rdi, Rsi, Rdx, R10, R8
    /// and R9 for one that was entered by the instruction `syscall`.
    Registers registers{};
    long systemCall = -1;  ///< its number; -1 outside of one
    bool isInSystemCall = false;
};

/// The file "syscall": "running", or for a thread off the processors the system call's number and
/// arguments, then its stack and instruction pointer; outside of a call -1 and the pointers alone.
std::optional<BlockedAt> parseCallText(std::string_view text) noexcept;

/// The file "schedstat". None on a kernel that does not count, for every thread has run once.
std::optional<ThreadRuns> parseRunsText(std::string_view text) noexcept;

}  // namespace ThreadUtilities::platform
