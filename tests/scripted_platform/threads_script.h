// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <vector>

namespace ThreadUtilities::scripted {

/// The threads that the system knows of, as src/platform/threads.h asks for them.
struct ThreadsScript {
    /// What either source lists, by process id; a process that is not here has no threads.
    std::map<unsigned int, std::vector<unsigned int>> systemInformation;
    std::map<unsigned int, std::vector<unsigned int>> snapshot;

    /// Whether the notices cover a list of that size. May act as another thread would meanwhile.
    std::function<bool(std::size_t)> noticesCover = [](std::size_t) { return true; };
    std::vector<unsigned int> live;

    int systemInformationCalls = 0;
    int snapshotCalls = 0;
    int liveCalls = 0;
};

/// The one in force; assign `{}` to it to start afresh. Not guarded: set it up before threads read.
extern ThreadsScript threads;

}  // namespace ThreadUtilities::scripted
