// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "platform/run_witness.h"
#include "platform/thread_context.h"
#include "stack/stack_trace.h"

namespace ThreadUtilities {

/// Captures threads of the calling process again and again, as a profiler does. The results are
/// those of `getStackTrace`, but what has not changed is not looked up again: the stack of a thread
/// that has not run since it was captured (one run in 400, of microseconds, is noticed up to
/// 5 ms late), and within a millisecond, or 10 for a thread that has not run, the answer to
/// whether a debugger is attached.
///
/// For one thread at a time. Allocates, though never while a thread is stopped.
class CaptureSession {
 public:
    /// No capture waits for a thread longer than up to `runEnd`. `mostOpenFiles` may be kept open
    /// until the session ends.
    CaptureSession(std::size_t maxFrames, std::chrono::steady_clock::time_point runEnd,
                   std::size_t mostOpenFiles)
        : buffer(maxFrames), deadline(runEnd), mostFiles(mostOpenFiles), freeFiles(mostOpenFiles) {}

    /// Captures one thread, which is stopped meanwhile; returns the number of frames.
    std::size_t capture(unsigned int threadId);

    /// Whether the last capture found the same as the one before of the same thread, because that
    /// has not run since.
    bool isUnchanged() const { return unchanged; }

    /// The frames of the last capture are the first entries, innermost first.
    const std::vector<unsigned long long>& frames() const { return buffer; }

 private:
    struct KnownThread {
        std::unique_ptr<platform::RunWitness> witness;  ///< null where no file is kept open
        std::size_t files = 0;                          ///< that it keeps open at most
        platform::ThreadRuns runs;                      ///< when it was last found at rest
        std::optional<std::uint64_t> hint;              ///< no later than at the last proof of that
        std::chrono::steady_clock::time_point provenAt;
        std::vector<unsigned long long> frames;  ///< there; empty where it never was
    };
    using KnownThreads = std::unordered_map<unsigned int, KnownThread>;

    using Time = std::chrono::steady_clock::time_point;
    enum class Since { Unchanged, Ran, Ended };

    static Since sinceRest(KnownThreads::value_type& known, Time now);
    KnownThreads::iterator know(unsigned int threadId);
    KnownThreads::iterator forget(KnownThreads::iterator known);
    void forgetEndedThreads();
    platform::Visit visitKnown(KnownThreads::const_iterator known, Time now);

    std::vector<unsigned long long> buffer;
    const std::chrono::steady_clock::time_point deadline;
    const std::size_t mostFiles;
    std::size_t freeFiles;
    std::size_t newThreads = 0;  ///< since ended ones were last looked for
    KnownThreads knownThreads;
    CaptureSeries series;
    bool unchanged = false;
};

}  // namespace ThreadUtilities
