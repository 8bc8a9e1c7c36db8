// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// The samples of one thread, as a tree that grows.

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "report/report.h"

namespace ThreadUtilities::companion {

class SampledThread {
 public:
    /// One sample; the frames stand innermost first.
    void add(std::vector<FrameId> stack);
    /// One more sample of the stack that was added last. A thread that waits has the same again and
    /// again, and only how often is noted.
    void addAgain() { ++repeats; }

    ThreadProfile profile(std::uint64_t id, std::string name);

 private:
    struct Node {
        std::uint64_t count = 0;
        std::map<FrameId, std::size_t> children;
    };

    void addRepeats();
    void append(ThreadProfile& thread, FrameId frame, std::size_t node) const;

    std::vector<Node> nodes{1};
    std::vector<FrameId> last;
    std::uint64_t repeats = 0;
};

}  // namespace ThreadUtilities::companion
