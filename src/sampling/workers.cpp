#include "sampling/workers.h"

#include <ThreadUtilities/Threads.h>

#include <algorithm>

#include "platform/clock.h"
#include "stack/capture_session.h"

namespace ThreadUtilities {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

/// A worker that waits looks this often whether the run was ended early.
constexpr milliseconds longestSleep(100);

void registerWorker(SamplingRun& run) {
    {
        const std::lock_guard lock(run.registrationMutex);
        // First, so that the starter does not wait for ever when the insertion throws.
        ++run.registeredWorkers;
        run.samplerThreadIds.insert(getThreadId());
        run.workerRegistered.notify_one();
    }
    setThreadName("stack sampler");  // for those who wonder what keeps a processor busy
}

/// Sleeps whole milliseconds while the caller holds `samplingMutex`, so that the other workers
/// wait as well instead of finding the same thread not due.
void sleepUntilDue(const SamplingRun& run, nanoseconds wait) {
    auto remaining = std::chrono::duration_cast<milliseconds>(wait);
    while (remaining.count() > 0 && !run.stopRequested) {
        const milliseconds step = std::min(remaining, longestSleep);
        platform::sleepFor(step);
        remaining -= step;
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

/// Fetches the calling process's threads for the next pass. `lock` is released meanwhile: another
/// worker may do the same, and each counts a pass.
void beginOwnPass(SamplingRun& run, std::unique_lock<std::mutex>& lock, bool yield) {
    lock.unlock();
    if (yield) {
        platform::yieldProcessor();
    }
    std::vector<unsigned int> current = getThreadIds();
    lock.lock();
    run.threadIds = std::move(current);
    run.threadCursor = 0;
    ++run.iterationCount;
}

void beginNextPass(SamplingRun& run) {
    run.threadCursor = 0;
    ++run.iterationCount;
}

}  // namespace

void ownProcessWorker(SamplingRun& run) {
    registerWorker(run);
    CaptureSession session(static_cast<std::size_t>(run.maxFrames));
    bool sampledInPass = false;
    while (!run.isOver()) {
        std::unique_lock lock(run.samplingMutex);
        if (run.isPassOver()) {
            // A pass that found nothing due lets others run before the next one.
            beginOwnPass(run, lock, !sampledInPass);
            sampledInPass = false;
            if (run.isPassOver()) {
                return;
            }
        }
        const unsigned int threadId = run.threadIds[run.threadCursor++];
        nanoseconds wait{};
        if (run.samplerThreadIds.contains(threadId) ||
            !run.stampIfDue(threadId, run.listInterval, wait)) {
            continue;
        }
        lock.unlock();
        sampledInPass = true;
        const std::size_t count = session.capture(threadId);
        run.addSample(threadId, session.frames(), count);
    }
}

void focusThreadWorker(SamplingRun& run) {
    registerWorker(run);
    std::vector<unsigned long long> frames;
    while (!run.isOver()) {
        std::unique_lock lock(run.samplingMutex);
        nanoseconds wait{};
        if (!run.stampIfDue(run.focusThreadId, run.focusInterval, wait)) {
            sleepUntilDue(run, wait);
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
        nanoseconds wait{};
        if (!run.stampIfDue(threadId, run.listInterval, wait)) {
            sleepUntilDue(run, wait);
            continue;
        }
        lock.unlock();
        const std::size_t count = captureByCallback(run, threadId, frames);
        run.addSample(threadId, frames, count);
    }
}

}  // namespace ThreadUtilities
