// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// What a text of the library says, piece by piece.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "report/frame_table.h"

namespace ThreadUtilities::companion {

/// A node of a thread's call tree. Nodes stand in preorder: the first child, if there is one, is
/// the next node, the next sibling stands at `end`, and leaves have `end` right behind themselves.
struct ProfileNode {
    FrameId frame = FrameTable::unknown;
    std::uint32_t end = 0;
    /// Samples that passed through it; never fewer than its children's together.
    std::uint64_t count = 0;
};

struct ThreadProfile {
    std::uint64_t id = 0;
    std::string name;
    /// Samples of the thread, those without a single frame included.
    std::uint64_t samples = 0;
    std::vector<ProfileNode> nodes;
};

struct Profile {
    std::size_t line = 0;
    std::uint64_t totalSamples = 0;
    std::optional<std::uint64_t> iterations;
    std::uint64_t parallelism = 0;
    std::vector<ThreadProfile> threads;
};

/// One thread's line in the report of all threads. Frames stand innermost first.
struct ThreadStack {
    std::string id;
    std::string name;
    std::vector<FrameId> frames;
};

struct ThreadReport {
    std::size_t line = 0;
    std::vector<ThreadStack> threads;
};

/// A line with the texts of one stack, or of a single frame, in it. Frames stand innermost first.
struct StackText {
    std::size_t line = 0;
    /// What stands around the frames, line end included.
    std::string before;
    std::string after;
    std::vector<FrameId> frames;
};

/// Something that could not be read as it should.
struct Complaint {
    std::size_t line = 0;
    std::string what;
    /// The input ends in the middle of a report.
    bool isCutOff = false;
};

}  // namespace ThreadUtilities::companion
