// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "sampling/workers.h"

#include <ThreadUtilities/Threads.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <vector>

#include "platform/clock.h"

namespace ThreadUtilities {

void registerWorker(SamplingRun& run) {
    {
        const std::lock_guard lock(run.registrationMutex);
        // First, so that the starter does not wait for ever when the insertion throws.
        ++run.registeredWorkers;
        run.samplerThreadIds.insert(getThreadId());
        run.workerRegistered.notify_one();
    }
    setThreadName("stack sampler");  // for those who wonder whose thread this is
    platform::sleepPrecisely();
}

namespace {

using std::chrono::milliseconds;

/// A worker that waits looks this often whether the run was ended early.
constexpr milliseconds longestSleep(100);

/// Sleeps whole milliseconds while the caller holds `samplingMutex`, so that the other workers
/// wait as well instead of finding the same thread not due. Up to points in time, so that the
/// sleeps that end late do not add up.
void sleepUntilDue(const SamplingRun& run, const SamplingRun::Visit& visit) {
    const TimePoint end = visit.now + std::chrono::floor<milliseconds>(visit.due - visit.now);
    for (TimePoint time = visit.now; time < end && !run.stopRequested;) {
        time = end - time < longestSleep ? end : time + longestSleep;
        platform::sleepUntil(time);
    }
}

/// Calls the callback without any lock. Its answer counts only as far as there are frames.
std::size_t captureByCallback(const SamplingRun& run, unsigned int threadId,
                              std::vector<unsigned long long>& frames) {
    const auto limit = static_cast<unsigned long long>(run.maxFrames);
    const unsigned long long reported = run.capture(run.processId, threadId, frames, limit);
    return static_cast<std::size_t>(
        std::min({reported, limit, static_cast<unsigned long long>(frames.size())}));
}

void beginNextPass(SamplingRun& run) {
    run.threadCursor = 0;
    ++run.iterationCount;
}

}  // namespace

void focusThreadWorker(SamplingRun& run) {
    registerWorker(run);
    std::vector<unsigned long long> frames;
    while (!run.isOver()) {
        std::unique_lock lock(run.samplingMutex);
        const auto visit = run.stampIfDue(run.focusThreadId, run.focusInterval);
        if (!visit.isDue()) {
            sleepUntilDue(run, visit);
            continue;
        }
        lock.unlock();
        const std::size_t count = captureByCallback(run, run.focusThreadId, frames);
        if (count != 0) {
            run.addSample(run.focusThreadId, frames, count);
        }
    }
}

void otherThreadsWorker(SamplingRun& run) {
    registerWorker(run);
    std::vector<unsigned long long> frames(static_cast<std::size_t>(run.maxFrames));
    while (!run.isOver()) {
        std::unique_lock lock(run.samplingMutex);
        if (run.isPassOver()) {
            beginNextPass(run);
            if (run.isPassOver()) {
                return;
            }
        }
        const unsigned int threadId = run.threadIds[run.threadCursor++];
        if (threadId == run.focusThreadId) {
            continue;
        }
        const auto visit = run.stampIfDue(threadId, run.listInterval);
        if (!visit.isDue()) {
            sleepUntilDue(run, visit);
            continue;
        }
        lock.unlock();
        const std::size_t count = captureByCallback(run, threadId, frames);
        run.addSample(threadId, frames, count);
    }
}

}  // namespace ThreadUtilities
