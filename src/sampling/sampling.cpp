// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/Sampling.h>
#include <ThreadUtilities/Threads.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "sampling/sampling_run.h"
#include "sampling/worker_group.h"
#include "sampling/workers.h"
#include "threads/thread_list.h"

namespace ThreadUtilities {
namespace {

/// From this many workers on, some are left for the threads besides the focus thread.
constexpr unsigned int parallelismForOtherThreads = 4;
constexpr unsigned int focusWorkersBesideOthers = 2;

/// What an interval may lose is below what waking up costs it.
std::chrono::nanoseconds stampWidthFor(std::chrono::milliseconds interval) {
    constexpr int smallPart = 64;
    constexpr std::chrono::nanoseconds most = std::chrono::microseconds(100);
    return std::clamp(saturatingNanoseconds(interval) / smallPart, std::chrono::nanoseconds(0),
                      most);
}

TimePoint deadlineAfter(std::chrono::seconds duration) {
    return saturatingAdd(platform::steadyNow(), saturatingNanoseconds(duration));
}

/// One capture before the clock starts, so that what a callback does only once is not sampled.
void captureOnce(const SamplingRun& run, unsigned int threadId) {
    const auto limit = static_cast<unsigned long long>(run.maxFrames);
    std::vector<unsigned long long> frames(limit);
    run.capture(run.processId, threadId, frames, limit);
}

/// Starts one worker for each i below `parallelism`, of the kind that `kindOf(i)` says, and waits
/// for their end.
template <typename KindOf>
void runWorkers(SamplingRun& run, KindOf kindOf) {
    WorkerGroup workers(run);
    for (unsigned int index = 0; index < run.parallelism; ++index) {
        workers.start(kindOf(index));
    }
    workers.join();
}

enum class Iterations { Shown, LeftOut };

std::string report(const SamplingRun& run, Iterations iterations) {
    // Numbers by themselves, not through the stream: that would group digits as the host's global
    // locale says.
    std::string text = "Total sample count: " + std::to_string(run.totalSampleCount) + '\n';
    if (iterations == Iterations::Shown) {
        text += "Iteration count: " + std::to_string(run.iterationCount) + '\n';
    }
    text += "Parallelism: " + std::to_string(run.parallelism) + "\n\n";
    std::ostringstream tree;
    run.root->dump(tree, 0);
    return text + std::move(tree).str();
}

}  // namespace

std::string sampleAllThreads(const std::chrono::seconds& duration,
                             const std::chrono::milliseconds& interval) {
    SamplingRun run;
    run.root = std::make_shared<Tree>();
    run.startsSeen = announcedStarts();
    run.threadIds = getThreadIds();
    run.parallelism = samplingParallelism();
    run.listInterval = interval;
    run.stampWidth = stampWidthFor(interval);
    run.deadline = deadlineAfter(duration);
    runWorkers(run, [](unsigned int) { return ownProcessWorker; });
    return report(run, Iterations::Shown);
}

std::string sampleProcessThread(const unsigned int& processId, const unsigned int& threadId,
                                const std::chrono::seconds& duration,
                                const std::chrono::milliseconds& interval,
                                StackCaptureCallback capture) {
    if (!capture) {
        return {};
    }
    SamplingRun run;
    run.root = std::make_shared<Tree>(processId);
    run.parallelism = samplingParallelism();
    run.processId = processId;
    run.focusThreadId = threadId;
    run.focusInterval = interval;
    run.capture = std::move(capture);
    captureOnce(run, threadId);
    run.deadline = deadlineAfter(duration);
    runWorkers(run, [](unsigned int) { return focusThreadWorker; });
    return report(run, Iterations::LeftOut);
}

std::string sampleProcessAllThread(const unsigned int& processId, const unsigned int& threadId,
                                   const std::chrono::seconds& duration,
                                   const std::chrono::milliseconds& focusInterval,
                                   const std::chrono::milliseconds& listInterval,
                                   StackCaptureCallback capture) {
    if (!capture) {
        return {};
    }
    SamplingRun run;
    run.root = std::make_shared<Tree>(processId);
    run.threadIds = getThreadIds(processId);
    run.parallelism = samplingParallelism();
    run.processId = processId;
    run.focusThreadId = threadId;
    run.focusInterval = focusInterval;
    run.listInterval = listInterval;
    run.capture = std::move(capture);
    if (!run.threadIds.empty()) {
        captureOnce(run, run.threadIds.front());
    }
    run.deadline = deadlineAfter(duration);
    const bool onlyFocus = run.parallelism < parallelismForOtherThreads;
    runWorkers(run, [onlyFocus](unsigned int index) {
        return onlyFocus || index < focusWorkersBesideOthers ? focusThreadWorker
                                                             : otherThreadsWorker;
    });
    return report(run, Iterations::Shown);
}

}  // namespace ThreadUtilities
