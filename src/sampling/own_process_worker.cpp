// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/Threads.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "platform/run_witness.h"
#include "sampling/workers.h"
#include "stack/capture_session.h"
#include "threads/thread_list.h"

namespace ThreadUtilities {
namespace {

using Lock = std::unique_lock<std::mutex>;

/// A new thread is seen after this time. Where thread starts are heard of, that is also how long
/// the next ones after a start wait, so that a host that starts many does not pay for many looks.
constexpr std::chrono::milliseconds timeBetweenLooks(1);
/// Where thread starts are heard of: for those that were made past every announcement, and for the
/// run that is told to end.
constexpr std::chrono::milliseconds longestWait(20);

struct ThreadList {
    std::uint32_t startsSeen = announcedStarts();  // first: whoever announces itself was added
    std::vector<unsigned int> ids = getThreadIds();
};

/// Caller holds `samplingMutex`.
void beginPass(SamplingRun& run, ThreadList&& list) {
    run.startsSeen = list.startsSeen;
    run.threadIds = std::move(list.ids);
    run.threadCursor = 0;
    run.nextDue = TimePoint::max();
    ++run.iterationCount;
}

/// Fetches the list for the next pass. `lock` is released meanwhile: another worker may do the
/// same, and each counts a pass.
void beginPassAtOnce(SamplingRun& run, Lock& lock) {
    lock.unlock();
    ThreadList current;
    lock.lock();
    beginPass(run, std::move(current));
}

void sleepUntilNextLook(std::uint32_t startsSeen, TimePoint due) {
    const TimePoint now = platform::steadyNow();
    const TimePoint soon = std::min(due, saturatingAdd(now, timeBetweenLooks));
    sleepUntilThreadStarts(startsSeen, std::min(due, saturatingAdd(now, longestWait)));
    if (platform::steadyNow() < soon) {
        platform::sleepUntil(soon);
    }
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
            const TimePoint due = std::min(run.nextDue, run.deadline);
            const std::uint32_t startsSeen = run.startsSeen;
            lock.unlock();
            sleepUntilNextLook(startsSeen, due);
            ThreadList current;
            lock.lock();
            // Another worker that had begun to fetch a list before may have begun a pass with it;
            // as long as that is not over it does not tell when the next thread is due.
            const bool isKnown = run.isPassOver() && current.ids == run.threadIds;
            if (!isKnown || run.isOver() || platform::steadyNow() >= run.nextDue) {
                beginPass(run, std::move(current));
                return;
            }
            run.startsSeen = current.startsSeen;
            ++run.iterationCount;
        }
    }

 private:
    SamplingRun& run;
    Lock& lock;
};

/// Samples on their way to the tree: a stack that was found again is only counted, because most
/// threads of most programs wait, at the same place for many samples.
class RepeatedSamples {
 public:
    explicit RepeatedSamples(SamplingRun& sharedRun) : run(sharedRun) {}

    void add(unsigned int threadId, const CaptureSession& session, std::size_t frameCount) {
        Stack& stack = stacks[threadId];
        if (!session.isUnchanged()) {
            addToTree(threadId, stack);
        }
        if (stack.times == 0) {
            const auto begin = session.frames().begin();
            stack.frames.assign(begin, begin + static_cast<std::ptrdiff_t>(frameCount));
        }
        ++stack.times;
        if (stacks.size() > mostStacks) {
            addToTree();
        }
    }

    void addToTree() {
        for (auto& [threadId, stack] : stacks) {
            addToTree(threadId, stack);
        }
        stacks.clear();
    }

 private:
    struct Stack {
        std::vector<unsigned long long> frames;
        unsigned long long times = 0;
    };
    // A host may start any number of threads.
    static constexpr std::size_t mostStacks = 4096;

    void addToTree(unsigned int threadId, Stack& stack) {
        if (const auto times = std::exchange(stack.times, 0); times != 0) {
            run.addSample(threadId, stack.frames, stack.frames.size(), times);
        }
    }

    SamplingRun& run;
    std::unordered_map<unsigned int, Stack> stacks;
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
    if (run.threadIds.empty() || run.nextDue <= platform::steadyNow()) {
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
    RepeatedSamples samples(run);
    for (auto now = platform::steadyNow(); !run.isOver(now); now = platform::steadyNow()) {
        Lock lock(run.samplingMutex);
        if (run.isPassOver()) {
            if (!continueWithNextPass(run, lock)) {
                break;
            }
            continue;  // time may have passed
        }
        const unsigned int threadId = run.threadIds[run.threadCursor++];
        if (run.samplerThreadIds.contains(threadId)) {
            continue;
        }
        const auto visit = run.stampIfDue(threadId, run.listInterval, now);
        run.nextDue = std::min(run.nextDue, visit.nextDue);
        if (!visit.isDue()) {
            continue;
        }
        lock.unlock();
        run.workMayBeThere.notify_one();
        const std::size_t count = session.capture(threadId);
        samples.add(threadId, session, count);
    }
    samples.addToTree();
}

}  // namespace ThreadUtilities
