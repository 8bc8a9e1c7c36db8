// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

// The thread lists, names, captures and frame texts that the sampler asks for, set by the test.

namespace ThreadUtilities::scripted {

struct LowerLayers {
    unsigned int mainThreadId = 0;
    /// By process; 0 is the calling process's own list.
    std::map<unsigned int, std::vector<unsigned int>> threads;
    /// Whether the calling process's list also shows the worker threads that have started.
    bool showsWorkers = false;
    std::map<unsigned int, std::string> names;
    /// What the library's own capture stores for a thread; runs on the workers.
    std::function<std::vector<unsigned long long>(unsigned int threadId)> captureOwn;
    /// Called when the calling process's thread list is fetched.
    std::function<void()> onThreadList;
};

/// Starts a test with empty layers; threads that ask for their own id get numbers from 9001 on.
LowerLayers& resetLowerLayers();

/// Ids that worker threads were given since the reset.
std::vector<unsigned int> issuedThreadIds();

/// How many of those threads have not ended yet.
int liveWorkers();

}  // namespace ThreadUtilities::scripted
