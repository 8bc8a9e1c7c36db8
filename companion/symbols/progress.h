// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <chrono>
#include <cstddef>

namespace ThreadUtilities::companion {

/// A line on the error stream, where that is a terminal, for work that takes longer than a second.
class Progress {
 public:
    Progress();
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void add(std::size_t frames) { total += frames; }
    void step();
    void clear();

 private:
    bool isTerminal;
    bool isShown = false;
    std::size_t done = 0;
    std::size_t total = 0;
    std::chrono::steady_clock::time_point next;
};

}  // namespace ThreadUtilities::companion
