// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "platform/run_witness.h"

namespace ThreadUtilities {

/// Captures threads of the calling process again and again, as a profiler does. The results are
/// those of `getStackTrace`, but what cannot have changed is not looked up again: the stack of a
/// thread that has not run since it was captured, and within a millisecond the answer to whether a
/// debugger is attached.
///
/// For one thread at a time. Allocates, though never while a thread stands still.
class CaptureSession {
 public:
    /// No capture waits for a thread longer than up to `runEnd`. `mostOpenFiles` may be kept open
    /// until the session ends.
    CaptureSession(std::size_t maxFrames, std::chrono::steady_clock::time_point runEnd,
                   std::size_t mostOpenFiles)
        : buffer(maxFrames), deadline(runEnd), freeFiles(mostOpenFiles) {}

    /// Captures one thread, which stands still meanwhile; returns the number of frames.
    std::size_t capture(unsigned int threadId);

    /// The frames of the last capture are the first entries, innermost first.
    const std::vector<unsigned long long>& frames() const { return buffer; }

 private:
    struct KnownStack {
        std::unique_ptr<platform::RunWitness> witness;  ///< null where no file is kept open
        platform::ThreadRuns runs;
        std::vector<unsigned long long> frames;
    };
    using KnownStacks = std::unordered_map<unsigned int, KnownStack>;

    bool isDebuggerAttached();
    static std::optional<platform::ThreadRuns> runsOf(const KnownStacks::value_type& known);
    void keep(unsigned int threadId, std::size_t frameCount, const platform::ThreadRuns& runs);
    KnownStacks::iterator forget(KnownStacks::iterator known);
    void forgetEndedThreads();

    std::vector<unsigned long long> buffer;
    const std::chrono::steady_clock::time_point deadline;
    std::size_t freeFiles;
    std::size_t newThreads = 0;  ///< since ended ones were last looked for
    KnownStacks knownStacks;
    std::chrono::steady_clock::time_point debuggerAskedAt;
    bool debuggerIsKnown = false;
    bool debuggerAttached = false;
};

}  // namespace ThreadUtilities
