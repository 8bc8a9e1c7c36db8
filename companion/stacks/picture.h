// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// A look at a process as text and as JSON.

#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include "stacks/process_look.h"
#include "support/terminal.h"

namespace ThreadUtilities::companion {

/// Threads whose waits have one cause that does not go away by itself.
struct Knot {
    /// "deadlock: a waits for b waits for a".
    std::string heading;
    std::vector<std::size_t> threads;
    bool isCycle = false;
    bool isGuess = false;
};

/// Cycles of holders, then locks whose holder has ended.
std::vector<Knot> findKnots(const std::vector<SeenThread>& threads, const Target& target);

/// What ties threads up first, then the others, those with equal stacks together.
std::string pictureText(const std::vector<SeenThread>& threads, const std::vector<Knot>& knots,
                        const FrameTable& frames, const Symbols& symbols, const Terminal& terminal);

/// The line of a report of all threads, as `read` writes it; one line a knot, one a wait.
std::string pictureJson(const std::vector<SeenThread>& threads, const std::vector<Knot>& knots,
                        const FrameTable& frames, const Symbols& symbols);

}  // namespace ThreadUtilities::companion
