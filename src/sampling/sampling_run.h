// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <ThreadUtilities/Sampling.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <set>
#include <unordered_map>
#include <vector>

#include "sampling/saturating_time.h"

namespace ThreadUtilities {

/// Most frames taken per sample.
constexpr std::int32_t maxFramesPerSample = 256;

/// What the workers of one sampling call share. The entry point fills it, starts the workers,
/// joins them all and then reads the counters and the tree.
///
/// Locks: `samplingMutex` guards the choice of the next thread; `registrationMutex` the start of a
/// worker. Only the starter holds both, `samplingMutex` first.
struct SamplingRun {
    // Set before the workers start, then only read.
    std::shared_ptr<Tree> root;
    unsigned int processId = 0;
    unsigned int focusThreadId = 0;
    unsigned int parallelism = 1;
    const std::int32_t maxFrames = maxFramesPerSample;
    TimePoint deadline;
    std::chrono::milliseconds focusInterval{0};
    std::chrono::milliseconds listInterval{0};
    /// Threads chosen within this time are stamped with one time: they are due together from then
    /// on, so that one wake-up serves them all.
    std::chrono::nanoseconds stampWidth{0};
    StackCaptureCallback capture;  ///< called without any lock, by several workers at once

    // Guarded by `samplingMutex`.
    std::mutex samplingMutex;
    std::vector<unsigned int> threadIds;
    std::size_t threadCursor = 0;  ///< index in `threadIds`; every visit goes to one worker
    std::unordered_map<unsigned int, TimePoint> lastSampleTime;
    TimePoint lastStamp = TimePoint::min();

    // Guarded by `samplingMutex`; of the workers that sample this process.
    std::uint32_t startsSeen = 0;            ///< thread starts announced before `threadIds`
    TimePoint nextDue = TimePoint::max();    ///< when the first of those visited so far will be
    bool isWatched = false;                  ///< whether a worker waits for that time
    std::condition_variable workMayBeThere;  ///< the others wait for this meanwhile

    // A worker adds itself under `registrationMutex`, while the starter holds `samplingMutex`:
    // therefore who holds `samplingMutex` may read `samplerThreadIds`. The starter waits for
    // the count: the set does not grow when a worker gets the id of one that has ended.
    std::mutex registrationMutex;
    std::condition_variable workerRegistered;
    std::set<unsigned int> samplerThreadIds;
    unsigned int registeredWorkers = 0;
    std::exception_ptr failure;  ///< the first exception that left a worker; `registrationMutex`

    std::atomic<unsigned long long> totalSampleCount = 0;
    std::atomic<unsigned long long> iterationCount = 0;
    std::atomic<bool> stopRequested = false;

    /// Whether the run is over: the deadline is reached, or it was ended early.
    bool isOver() const;
    bool isOver(TimePoint now) const;

    /// Makes every worker end at its next turn.
    void requestStop() noexcept { stopRequested = true; }

    /// Keeps the exception that is being handled, unless there is one already, and ends the run.
    /// Wakes the starter.
    void failWithCurrentException() noexcept;

    /// The current pass over `threadIds` is at its end. Caller holds `samplingMutex`.
    bool isPassOver() const { return threadCursor >= threadIds.size(); }

    struct Visit {
        TimePoint now;
        TimePoint due;
        TimePoint nextDue;  ///< `due`, or where it is due the next time
        bool isDue() const { return due <= now; }
    };

    /// Chooses a thread for a sample when it was not sampled for `interval`: it is then stamped
    /// with the time. Caller holds `samplingMutex`.
    Visit stampIfDue(unsigned int threadId, std::chrono::milliseconds interval);
    Visit stampIfDue(unsigned int threadId, std::chrono::milliseconds interval, TimePoint now);

    /// Counts a sample and merges its first `frameCount` frames into the tree.
    void addSample(unsigned int threadId, const std::vector<unsigned long long>& frames,
                   std::size_t frameCount, unsigned long long times = 1);
};

/// Number of workers: half the hardware threads, at least 1.
unsigned int samplingParallelism();

}  // namespace ThreadUtilities
