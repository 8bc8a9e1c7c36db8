// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The threads of a process as the kernel lists them: /proc/<process>/task.

#include <cstddef>
#include <vector>

namespace ThreadUtilities::platform {

inline constexpr const char* ownTaskFolder = "/proc/self/task";

/// The entries that are numbers, in the kernel's order, each once. Empty when the folder cannot
/// be read. A listing is not taken at one moment: the kernel looks for its place anew when the
/// thread at which it stands ends, and may then pass over a thread that lives on.
std::vector<unsigned int> listNumberedEntries(const char* path);

/// The number of threads that a task folder has, without listing them; 0 when that is not told.
std::size_t countTasks(const char* path) noexcept;

enum class TaskState {
    Live,
    Ending,  ///< on its way out, its own code is over; or ended and still to be waited for
    Gone,
};

/// How thread `threadId` of this process stands.
TaskState stateOfOwnTask(unsigned int threadId) noexcept;

/// The same for a thread of any process; a thread that may not be looked at counts as live.
TaskState stateOfTask(unsigned int processId, unsigned int threadId) noexcept;

/// Whether the process has that thread at all, live or ending. Cheaper.
bool hasTask(unsigned int processId, unsigned int threadId) noexcept;

}  // namespace ThreadUtilities::platform
