// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// Code addresses of a running process as frames of a report.

#include <ThreadUtilities/ProcessCapture.h>

#include <unordered_map>
#include <vector>

#include "report/frame_table.h"
#include "report/frame_text.h"

namespace ThreadUtilities::companion {

/// Asks for each address once, at once: what it belonged to is gone when the process is, or when a
/// module has been unloaded.
class ProcessFrames {
 public:
    ProcessFrames(unsigned int process, FrameTable& frameTable)
        : processId(process), interner(frameTable) {}

    FrameId at(unsigned long long address);
    /// Of the return addresses that a look found.
    std::vector<FrameId> callers(const ThreadLook& look,
                                 const std::vector<unsigned long long>& addresses);
    /// The same; where the thread ran, with the place at which it was stopped before them: there
    /// its own time goes.
    std::vector<FrameId> all(const ThreadLook& look,
                             const std::vector<unsigned long long>& addresses);

    /// For the moment in which the process runs another program.
    void forget() { known.clear(); }

 private:
    unsigned int processId;
    FrameInterner interner;
    std::unordered_map<unsigned long long, FrameId> known;
};

}  // namespace ThreadUtilities::companion
