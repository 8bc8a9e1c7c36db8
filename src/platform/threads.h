// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// What the system knows of threads: those of any process, and how far its notices can be relied on
// for those of this one.

#include <cstddef>
#include <vector>

namespace ThreadUtilities::platform {

/// The threads of a process from the system's own process records, in the system's order. Empty
/// when there is no such process or its threads may not be listed.
std::vector<unsigned int> enumerateThreadsFromSystemInformation(unsigned int processId);

/// The same from a second, independent source. `processId` is not 0.
std::vector<unsigned int> enumerateThreadsFromSnapshot(unsigned int processId);

/// Whether a list of `listed` different threads of this process, each of which was announced and
/// none of whose ends was, holds all threads that the process has at this moment. False when that
/// cannot be told cheaply. May find ends, and announce them before it returns.
bool noticesCover(std::size_t listed) noexcept;

/// The threads of this process that have not begun to end, in the system's order. Where the system
/// does not list them, the calling thread and those of `known` that are still there. Only asked for
/// where `noticesCover` may be false.
std::vector<unsigned int> liveThreads(const std::vector<unsigned int>& known);

}  // namespace ThreadUtilities::platform
