// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// A storm: threads that do something awkward for as long as it lasts, while other threads capture
// them and each other without a pause.

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace storm {

/// A thread under capture. Its body works until `stop` is set.
class Target {
 public:
    /// Notes who called the calling function, whose return address is `firstCaller`.
    void noteCallers(const void* firstCaller);
    [[nodiscard]] bool mustGoOn() const { return !stop.load(std::memory_order_relaxed); }

    std::atomic<unsigned int> threadId{0};
    std::atomic<bool> stop{false};
    /// The outermost callers, innermost first: every whole capture ends with them.
    std::array<void*, 16> callers{};
    int callerCount = 0;
};

struct Storm {
    std::string name;
    /// Each runs in a thread of its own.
    std::vector<void (*)(Target&)> bodies;
    /// Whether every capture finds the thread and its outermost callers. Not so where a thread
    /// blocks the signal, ends, leaves its stack, or passes through code that no table describes.
    bool isWhole = true;
};

struct Outcome {
    unsigned long long captures = 0;
    unsigned long long empty = 0;       ///< without a frame, though not for want of patience
    unsigned long long givenUp = 0;     ///< without a frame, after waiting for the thread
    unsigned long long incomplete = 0;  ///< without the outermost callers
    unsigned long long overruns = 0;    ///< wrote behind the frames that they reported
};

/// Ends the process, with a word on the storm, when nothing is captured for a minute.
[[nodiscard]] std::jthread watchProgress();

Outcome run(const Storm& storm, std::chrono::milliseconds duration);

}  // namespace storm
