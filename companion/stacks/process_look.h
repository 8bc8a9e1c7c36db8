// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// All threads of a process at one time: where each stands, and what it waits for.

#include <ThreadUtilities/ProcessCapture.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "process/process_frames.h"
#include "process/target.h"
#include "report/report.h"
#include "symbols/symbols.h"
#include "waits/wait.h"

namespace ThreadUtilities::companion {

struct SeenThread {
    TargetThread thread;
    ThreadLook look;
    std::vector<FrameId> frames;
    Wait wait;
    /// It did not run while its wait was worked out, nor before since the look.
    bool isAtRest = false;
};

enum class Depth : std::uint8_t {
    all,
    callers,  ///< as the library's own reports have them
};

/// One look at each thread of the process's list.
std::vector<SeenThread> lookAtAll(const Target& target, ProcessFrames& frames, Depth depth);

/// Works out what each thread waits for. Afterwards a holder counts only where it was the same, and
/// lived, at two moments between which the waiter did not run; the list of threads is new.
void addWaits(std::vector<SeenThread>& threads, Target& target, const FrameTable& frames,
              const Symbols& symbols);

/// Threads, as indices, each of which waits for the next one and the last one for the first.
using Cycle = std::vector<std::size_t>;
std::vector<Cycle> findCycles(const std::vector<SeenThread>& threads);

ThreadReport reportOf(const std::vector<SeenThread>& threads);

}  // namespace ThreadUtilities::companion
