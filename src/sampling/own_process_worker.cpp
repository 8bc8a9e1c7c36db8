// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/Threads.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "platform/run_witness.h"
#include "sampling/workers.h"
#include "stack/capture_session.h"

namespace ThreadUtilities {
namespace {

using Lock = std::unique_lock<std::mutex>;

/// A new thread is seen after this time at the latest.
constexpr std::chrono::milliseconds longestWait(1);

/// Caller holds `samplingMutex`.
void beginPass(SamplingRun& run, std::vector<unsigned int>&& threadIds) {
    run.threadIds = std::move(threadIds);
    run.threadCursor = 0;
    run.passFoundDue = false;
    run.nextDue = TimePoint::max();
    ++run.iterationCount;
}

/// Fetches the list for the next pass. `lock` is released meanwhile: another worker may do the
/// same, and each counts a pass.
void beginPassAtOnce(SamplingRun& run, Lock& lock) {
    lock.unlock();
    std::vector<unsigned int> current = getThreadIds();
    lock.lock();
    beginPass(run, std::move(current));
}

/// The turn of the one worker that waits for the rest. Ends also when the worker is torn away.
class Watch {
 public:
    Watch(SamplingRun& watchedRun, Lock& samplingLock) : run(watchedRun), lock(samplingLock) {
        run.isWatched = true;
    }
    ~Watch() {
        if (!lock.owns_lock()) {
            lock.lock();
        }
        run.isWatched = false;
    }

    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    /// Waits, and begins the next pass. Where the list has not changed meanwhile, and no thread is
    /// due yet, that pass would find nothing: it is counted without a walk.
    void wait() {
        while (true) {
            const TimePoint until = std::min(
                {run.nextDue, saturatingAdd(platform::steadyNow(), longestWait), run.deadline});
            lock.unlock();
            platform::sleepUntil(until);
            std::vector<unsigned int> current = getThreadIds();
            lock.lock();
            // Another worker that had begun to fetch a list before may have begun a pass with it;
            // as long as that is not over it does not tell when the next thread is due.
            const bool isKnown = run.isPassOver() && !run.passFoundDue && current == run.threadIds;
            if (!isKnown || run.isOver() || platform::steadyNow() >= run.nextDue) {
                beginPass(run, std::move(current));
                return;
            }
            ++run.iterationCount;
        }
    }

 private:
    SamplingRun& run;
    Lock& lock;
};

/// Nobody waits for a worker that has ended.
class WakeOthersAtEnd {
 public:
    explicit WakeOthersAtEnd(SamplingRun& sharedRun) : run(sharedRun) {}
    ~WakeOthersAtEnd() {
        // Under the lock: a worker that has just found the run watched waits by then.
        const std::lock_guard lock(run.samplingMutex);
        run.workMayBeThere.notify_all();
    }

    WakeOthersAtEnd(const WakeOthersAtEnd&) = delete;
    WakeOthersAtEnd& operator=(const WakeOthersAtEnd&) = delete;

 private:
    SamplingRun& run;
};

/// At the end of a pass: sees to the next one, or waits until another worker has found work.
/// False when there are no threads any more.
///
/// A worker waits without a limit only while another one watches; one that watches takes samples
/// again, watches again or ends, and wakes the others where it ends and one more where it finds a
/// thread due. Because thus nobody waits unless somebody is about, no worker waits for ever.
bool continueWithNextPass(SamplingRun& run, Lock& lock) {
    if (run.passFoundDue || run.threadIds.empty()) {
        beginPassAtOnce(run, lock);
    } else if (!run.isWatched) {
        Watch(run, lock).wait();
    } else {
        run.workMayBeThere.wait(lock);
        return true;
    }
    return !run.threadIds.empty();
}

}  // namespace

void ownProcessWorker(SamplingRun& run) {
    registerWorker(run);
    const WakeOthersAtEnd wakeOthersAtEnd(run);
    CaptureSession session(static_cast<std::size_t>(run.maxFrames), run.deadline,
                           platform::separateOpenFiles());
    while (!run.isOver()) {
        Lock lock(run.samplingMutex);
        if (run.isPassOver()) {
            if (!continueWithNextPass(run, lock)) {
                return;
            }
            continue;  // time may have passed
        }
        const unsigned int threadId = run.threadIds[run.threadCursor++];
        if (run.samplerThreadIds.contains(threadId)) {
            continue;
        }
        const auto visit = run.stampIfDue(threadId, run.listInterval);
        if (!visit.isDue()) {
            run.nextDue = std::min(run.nextDue, visit.due);
            continue;
        }
        run.passFoundDue = true;
        lock.unlock();
        run.workMayBeThere.notify_one();
        const std::size_t count = session.capture(threadId);
        run.addSample(threadId, session.frames(), count);
    }
}

}  // namespace ThreadUtilities
