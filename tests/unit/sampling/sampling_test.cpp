// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// The sampler over made-up threads and a made-up clock.

#include <ThreadUtilities/Sampling.h>
#include <ThreadUtilities/StackTrace.h>
#include <ThreadUtilities/Threads.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <iomanip>
#include <locale>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "foundation/ascii.h"
#include "platform/clock.h"
#include "sampling/sampling_run.h"
#include "sampling/saturating_time.h"
#include "scripted_platform/script.h"
#include "stack/frame_details.h"
#include "stack/stack_trace.h"
#include "support/forced_unwinding.h"
#include "support/latch.h"
#include "support/sanitizers.h"

namespace ThreadUtilities {
namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using Frames = std::vector<unsigned long long>;
using Ids = std::vector<unsigned int>;

/// What the sampler asks for: thread lists, names, captures and frame texts.
struct LowerLayers {
    unsigned int mainThreadId = 0;
    std::map<unsigned int, Ids> threads;  ///< by process; 0 is the calling process's own list
    std::map<unsigned int, std::string> names;
    /// Whether the own list also shows the worker threads that have started.
    bool showsWorkers = false;
    /// What the library's own capture stores for a thread; runs on the workers.
    std::function<Frames(unsigned int threadId)> captureOwn;
    /// Called when the own list is fetched.
    std::function<void()> onThreadList = [] {};
    /// Called when a worker waits for a thread that starts.
    std::function<void(std::uint32_t seen, TimePoint until)> onWait = [](auto...) {};
};
LowerLayers layers;
std::atomic<std::uint32_t> startsAsked = 0;

/// Ids that threads which asked for their own were given, from 9001 on: the workers.
std::mutex issuedMutex;
Ids issued;
std::atomic<int> liveWorkers = 0;

Ids issuedThreadIds() {
    const std::lock_guard lock(issuedMutex);
    return issued;
}

}  // namespace

unsigned int getMainThreadId() {
    return layers.mainThreadId;
}

unsigned int getThreadId() {
    struct LiveMark {
        LiveMark() { ++liveWorkers; }
        ~LiveMark() { --liveWorkers; }
    };
    thread_local const LiveMark mark;
    const std::lock_guard lock(issuedMutex);
    issued.push_back(static_cast<unsigned int>(9001 + issued.size()));
    return issued.back();
}

Ids getThreadIds() {
    layers.onThreadList();
    Ids threads = layers.showsWorkers ? issuedThreadIds() : Ids();
    const Ids others = getThreadIds(0);
    threads.insert(threads.end(), others.begin(), others.end());
    return threads;
}

Ids getThreadIds(unsigned int processId) {
    const auto entry = layers.threads.find(processId);
    return entry == layers.threads.end() ? Ids() : entry->second;
}

std::string getThreadName(unsigned int threadId) {
    const auto entry = layers.names.find(threadId);
    return entry == layers.names.end() ? "" : entry->second;
}

void setThreadName(const std::string&) {}

unsigned long long getStackTrace(const unsigned int& threadId, unsigned long long* frames,
                                 unsigned long long maxFrames, bool) {
    const auto captured = layers.captureOwn(threadId);
    const auto count = std::min<std::size_t>(captured.size(), maxFrames);
    std::copy_n(captured.begin(), count, frames);
    return count;
}

bool CaptureSeries::isDebuggerAttached(milliseconds) noexcept {
    return false;
}

platform::Visit CaptureSeries::capture(platform::VisitRequest asked,
                                       std::span<unsigned long long> frames) {
    return {platform::VisitResult::Visited,
            static_cast<std::size_t>(
                getStackTrace(asked.threadId, frames.data(), frames.size(), asked.suspend))};
}

std::uint32_t announcedStarts() noexcept {
    return ++startsAsked;
}

bool sleepUntilThreadStarts(std::uint32_t seen, TimePoint until) noexcept {
    layers.onWait(seen, until);
    return false;
}

WideString describeFrame(unsigned int processId, unsigned long long address) {
    return wideFromAscii("frame " + std::to_string(processId) + "/" + std::to_string(address));
}

namespace {

constexpr unsigned int process = 77;
constexpr unsigned int focus = 5;

class Sampling : public testing::Test {
 protected:
    Sampling() {
        issued.clear();
        layers = LowerLayers();
        layers.threads = {{0, {11, 12}}, {process, {4, focus, 6}}};
        layers.captureOwn = [this](unsigned int threadId) {
            note(threadId);
            return Frames{threadId + 2000ull, threadId + 1000ull};
        };
        resetClock(2);
    }

    static void resetClock(unsigned int hardwareThreads) {
        scripted::resetClock();
        scripted::setHardwareThreads(hardwareThreads);
    }

    /// Adds a stack, innermost frame first.
    static void addTo(Tree& tree, unsigned long long thread, const Frames& frames) {
        tree.add(thread, Tree::FrameIterator(frames.cend()), Tree::FrameIterator(frames.cbegin()));
    }

    static std::string dumpOf(Tree& tree) {
        std::ostringstream text;
        text << std::hex << std::showbase << std::setw(30) << std::setfill('*');  // for others
        tree.dump(text, 0);
        return text.str();
    }

    std::string sampleFocus(std::chrono::seconds duration, milliseconds interval) {
        return sampleProcessThread(process, focus, duration, interval, callback());
    }
    std::string sampleAll(std::chrono::seconds duration, milliseconds focusInterval,
                          milliseconds listInterval) {
        return sampleProcessAllThread(process, focus, duration, focusInterval, listInterval,
                                      callback());
    }

    /// Remembers each call, and answers it by `answer`.
    StackCaptureCallback callback() {
        return [this](unsigned int processId, const unsigned int& threadId, Frames& frames,
                      unsigned long long limit) {
            EXPECT_EQ(processId, process);
            EXPECT_EQ(limit, 256u);
            note(threadId, frames.size());
            return answer(threadId, frames);
        };
    }

    void note(unsigned int threadId, std::size_t room = 0) {
        const std::lock_guard lock(mutex);
        captured.push_back(threadId);
        rooms.push_back(room);
    }
    std::ptrdiff_t captures(unsigned int threadId) {
        const std::lock_guard lock(mutex);
        return std::count(captured.begin(), captured.end(), threadId);
    }

    using Answer = std::function<unsigned long long(unsigned int, Frames&)>;

    /// An answer that lets time stand still until each of the three threads was captured more often
    /// than `enough` times from here on.
    Answer endAfter(unsigned long long frameCount, std::ptrdiff_t enough) {
        captured.clear();
        return [this, frameCount, enough](unsigned int, Frames& frames) {
            frames.resize(256);
            // The first capture of thread 4 is before the run.
            if (captures(4) > enough + 1 && captures(focus) > enough && captures(6) > enough) {
                scripted::advanceClock(1h);
            }
            return frameCount;
        };
    }

    Answer answer = [](unsigned int, Frames& frames) {
        frames.resize(std::max<std::size_t>(frames.size(), 1));
        frames[0] = 10;
        return 1ull;
    };
    std::mutex mutex;
    Ids captured;                    ///< for which threads
    std::vector<std::size_t> rooms;  ///< entries in the frame vector before each call
};

TEST_F(Sampling, ATreeIsPrintedByThreadsTheMainOneFirst) {
    layers.mainThreadId = 812;
    layers.names[812] = "ui";
    // One of the two stands first in the tree itself.
    for (const unsigned int before : {900u, 812u}) {
        Tree root;
        addTo(root, before, {});
        addTo(root, 900, {3});
        addTo(root, 812, {44, 22, 22, 11});
        addTo(root, 812, {44, 22, 22, 11});
        addTo(root, 812, {22, 22, 11});
        addTo(root, before == 900 ? 812 : 900, {});
        EXPECT_EQ(dumpOf(root),
                  "Thread 812 [4]: ui\n"
                  "  [3]: frame 0/11\n"
                  "   [3]: frame 0/22\n"
                  "    [3]: frame 0/22\n"
                  "     [2]: frame 0/44\n"
                  "\n"
                  "Thread 900 [2]: \n"
                  "  [1]: frame 0/3\n"
                  "\n");
    }
    Tree other(78);
    addTo(other, 1000000, {16});
    EXPECT_EQ(dumpOf(other), "") << "a process without threads";
    layers.threads[78] = {1};
    EXPECT_EQ(dumpOf(other), "Thread 1000000 [1]: \n  [1]: frame 78/16\n\n");
}

TEST_F(Sampling, ThreadsThatAddTheSamePathMeetInTheSameNodes) {
    Tree root;
    {
        std::vector<std::jthread> threads;
        for (int index = 0; index < 4; ++index) {
            threads.emplace_back([&root] {
                for (int round = 0; round < 2000; ++round) {
                    addTo(root, 5, {20, 10});
                    addTo(root, 5, {});
                }
            });
        }
    }
    EXPECT_EQ(dumpOf(root), "Thread 5 [16000]: \n  [8000]: frame 0/10\n   [8000]: frame 0/20\n\n");
}

// Time passes in sleeps alone.
TEST_F(Sampling, OfThisProcessWaitsUntilAThreadIsDueAndLooksForNewOnesMeanwhile) {
    int fetches = 0;
    layers.onThreadList = [&] {
        if (++fetches == 5) {  // 4 ms after the beginning
            layers.threads[0].push_back(13);
        }
    };
    layers.captureOwn = [this](unsigned int threadId) {
        note(threadId);
        return captures(threadId) < 4 ? Frames{threadId + 2000ull, threadId + 1000ull} : Frames{7};
    };
    layers.onWait = [](std::uint32_t seen, TimePoint until) {
        EXPECT_EQ(seen, startsAsked) << "who started since is in the list";
        EXPECT_LE(until - platform::steadyNow(), 20ms);
    };
    const std::string report = sampleAllThreads(1s, 300ms);
    // A fetch after each of 1000 waits.
    EXPECT_EQ(report.find("Total sample count: 12\nIteration count: 1000\nParallelism: 1\n\n"), 0u)
        << report;
    for (const std::string id : {"11", "12", "13"}) {
        const std::string heading = "Thread " + id + " [4]: \n";
        EXPECT_NE(report.find(heading), std::string::npos) << report;
        EXPECT_NE(report.find("  [3]: frame 0/10" + id + "\n   [3]: frame 0/20" + id + "\n"),
                  report.npos);
    }
    EXPECT_NE(report.find("  [1]: frame 0/7\n"), std::string::npos) << report;
    EXPECT_EQ(scripted::sleeps(), std::vector<std::chrono::nanoseconds>(1000, 1ms));
}

TEST_F(Sampling, OfThisProcessCountsEveryPassAndFetchesTheListForEach) {
    int fetches = 0;
    layers.onThreadList = [&] {
        // A third thread shows up in the second pass, and only there.
        layers.threads[0] = ++fetches == 2 ? Ids{11, 13} : Ids{11};
    };
    scripted::setAdvancePerReading(1ms);
    const std::string report = sampleAllThreads(1s, 0ms);
    EXPECT_EQ(captures(13), 1);
    // The first fetch is the entry point's and the last the printout's; all others begin a pass.
    EXPECT_NE(report.find("\nIteration count: " + std::to_string(fetches - 2) + "\n"),
              std::string::npos)
        << report << fetches;
    EXPECT_TRUE(scripted::sleeps().empty()) << "every pass found something due";
}

TEST_F(Sampling, OfThisProcessHasAWorkerForTwoHardwareThreads) {
    layers.threads[0] = {};
    const std::pair<unsigned int, unsigned int> cases[] = {{0, 1}, {1, 1}, {3, 1}, {4, 2}, {17, 8}};
    for (const auto& [hardware, workers] : cases) {
        scripted::setHardwareThreads(hardware);
        const std::string number = std::to_string(workers);
        for (const auto duration : {0s, std::chrono::seconds::min()}) {
            EXPECT_EQ(sampleAllThreads(duration, 0ms),
                      "Total sample count: 0\nIteration count: 0\nParallelism: " + number + "\n\n");
        }
        EXPECT_EQ(sampleAllThreads(std::chrono::seconds::max(), 0ms),
                  "Total sample count: 0\nIteration count: " + number + "\nParallelism: " + number +
                      "\n\n")
            << "an empty list ends each";
    }
}

TEST_F(Sampling, OfThisProcessLeavesItsWorkersOut) {
    scripted::setHardwareThreads(8);
    layers.threads[0] = {11};
    layers.showsWorkers = true;
    std::atomic<int> capturesByAll = 0;
    layers.captureOwn = [&](unsigned int threadId) {
        // Time stands still until all workers are there and the list has shown them for a while.
        if (issuedThreadIds().size() == 4 && ++capturesByAll == 20) {
            scripted::advanceClock(1h);
        }
        note(threadId);
        return Frames{1};
    };
    const std::string report = sampleAllThreads(1s, 0ms);
    EXPECT_EQ(static_cast<std::size_t>(captures(11)), captured.size());
    EXPECT_EQ(report.find("Thread 9"), std::string::npos) << report;
}

TEST_F(Sampling, OfThisProcessCapturesOnSeveralWorkersAtOnce) {
    scripted::setHardwareThreads(4);
    // Captures after the first of each thread return only when both workers capture at the same
    // time: one of them waited for the other to find a thread due.
    tests::Latch bothCapture(2);
    std::atomic<int> begun = 0;
    layers.captureOwn = [&](unsigned int) {
        if (++begun > 2) {
            bothCapture.arrive_and_wait();
            scripted::advanceClock(1h);
        }
        return Frames{1};
    };
    EXPECT_EQ(sampleAllThreads(1min, 1s).substr(0, 22), "Total sample count: 4\n");
}

TEST_F(Sampling, WorkersThatWaitForOneAnotherAllEnd) {
    scripted::setHardwareThreads(16);
    layers.threads[0] = {11, 12, 13, 14, 15};
    layers.captureOwn = [](unsigned int) { return Frames{1}; };
    EXPECT_NE(sampleAllThreads(10s, 1ms), "");
    // Those that find nothing to do before the end are woken by the one that waits for it.
    EXPECT_NE(sampleAllThreads(10s, 1h), "");
    // Also where one of them ends by itself, while the time stands still.
    layers.captureOwn = [count = std::make_shared<std::atomic<int>>()](unsigned int) {
        return ++*count == 1000 ? throw std::bad_alloc() : Frames{1};
    };
    EXPECT_THROW(sampleAllThreads(std::chrono::seconds::max(), 1ms), std::bad_alloc);
}

TEST_F(Sampling, ThreadsChosenAtAboutOneTimeAreDueTogether) {
    SamplingRun run;
    run.stampWidth = 100us;
    const auto nextDue = [&](unsigned int thread, std::chrono::microseconds time) {
        return run.stampIfDue(thread, 10ms, TimePoint(time)).nextDue.time_since_epoch();
    };
    EXPECT_EQ(nextDue(1, 0us), 10ms);
    EXPECT_EQ(nextDue(2, 100us), 10ms);
    EXPECT_EQ(nextDue(3, 101us), 10ms + 101us);
}

TEST_F(Sampling, WithoutACallbackReportsNothing) {
    EXPECT_EQ(sampleProcessThread(process, focus, 1h, 0ms, nullptr), "");
    EXPECT_EQ(sampleProcessAllThread(process, focus, 1h, 0ms, 0ms, StackCaptureCallback()), "");
    EXPECT_TRUE(issuedThreadIds().empty());
}

TEST_F(Sampling, ByCallbackTakesTheFocusThreadOncePerIntervalAndSleepsMeanwhile) {
    // No text of the library is written as the host's locale says.
    struct EachDigit : std::numpunct<char> {
        std::string do_grouping() const override { return "\1"; }
    };
    const std::locale before = std::locale::global(std::locale(std::locale(), new EachDigit));
    // Time passes in sleeps alone: samples at 0, 250, 500 ms and so on.
    EXPECT_EQ(sampleFocus(3s, 250ms),
              "Total sample count: 12\nParallelism: 1\n\n"
              "Thread 5 [12]: \n  [12]: frame 77/10\n\n");
    std::locale::global(before);
    std::chrono::nanoseconds slept{};
    for (const std::chrono::nanoseconds sleep : scripted::sleeps()) {
        slept += sleep;
        EXPECT_GT(sleep, 0ms);
        EXPECT_LE(sleep, 100ms) << "so that a run can be ended early";
    }
    EXPECT_EQ(slept, 3s);
    rooms.resize(5);
    EXPECT_EQ(rooms, (std::vector<std::size_t>{256, 0, 1, 1, 1}))
        << "one call before the start; the worker keeps its vector";

    resetClock(2);
    scripted::setAdvancePerReading(300us);
    sampleFocus(1s, 7ms);
    EXPECT_FALSE(scripted::sleeps().empty());
    for (const std::chrono::nanoseconds sleep : scripted::sleeps()) {
        EXPECT_EQ((sleep + 300us) % 1ms, 0ns) << "whole milliseconds from the look at the clock on";
    }
}

TEST_F(Sampling, ByCallbackDropsWhatIsEmptyForTheFocusThreadOnly) {
    answer = [](unsigned int, auto&) { return 0ull; };
    scripted::setAdvancePerReading(10ms);
    EXPECT_EQ(sampleFocus(1s, 0ms), "Total sample count: 0\nParallelism: 1\n\n");
    EXPECT_GT(captured.size(), 10u);

    resetClock(8);
    answer = endAfter(0, 0);
    const std::string report = sampleAll(1s, 0ms, 0ms);
    EXPECT_EQ(report.find("Thread 5"), std::string::npos);
    EXPECT_NE(report.find("Thread 4 ["), std::string::npos) << report;
    EXPECT_EQ(report.find("frame"), std::string::npos);
}

TEST_F(Sampling, ByCallbackReadsNoMoreFramesThanThereAreAndNoMoreThan256) {
    scripted::setAdvancePerReading(400ms);
    answer = [](unsigned int, Frames& frames) {
        frames.assign(3, 7);
        return ~0ull;
    };
    EXPECT_EQ(sampleFocus(1s, 0ms),
              "Total sample count: 1\nParallelism: 1\n\n"
              "Thread 5 [1]: \n  [1]: frame 77/7\n   [1]: frame 77/7\n    [1]: frame 77/7\n\n");
    if (underThreadSanitizer) {
        return;  // the printout holds a lock per level, and ThreadSanitizer follows 64 at most
    }
    answer = [](unsigned int, Frames& frames) {
        frames.assign(1000, 7);
        return 1000ull;
    };
    const std::string report = sampleFocus(1s, 0ms);
    EXPECT_EQ(std::count(report.begin(), report.end(), '/'), 256);
}

TEST_F(Sampling, ByCallbackTakesOtherThreadsFromFourWorkersOn) {
    scripted::setHardwareThreads(6);
    scripted::setAdvancePerReading(1ms);
    const std::string few = sampleAll(1s, 50ms, 50ms);
    EXPECT_EQ(captured[0], 4u) << "the first capture goes to the first of the list";
    EXPECT_EQ(captures(focus) + 1, std::ssize(captured));
    EXPECT_NE(few.find("\nIteration count: 0\nParallelism: 3\n\nThread 5 ["), std::string::npos);

    resetClock(8);
    answer = endAfter(1, 2);
    const std::string many = sampleAll(1s, 0ms, 0ms);
    for (const unsigned int thread : {4u, focus, 6u}) {
        EXPECT_NE(many.find("Thread " + std::to_string(thread) + " ["), std::string::npos);
    }
    EXPECT_EQ(many.find("\nIteration count: 0\n"), std::string::npos) << many;
    EXPECT_NE(many.find("\nParallelism: 4\n"), std::string::npos);
}

TEST_F(Sampling, ByCallbackHasNoFirstCaptureOfAnUnknownProcess) {
    layers.threads[process] = {};
    scripted::setHardwareThreads(8);
    answer = [](unsigned int, auto&) -> unsigned long long {
        // Time stands still until the two workers with nothing to do have ended.
        if (issuedThreadIds().size() == 4 && liveWorkers == 2) {
            scripted::advanceClock(1h);
        }
        return 0;
    };
    const std::string report = sampleAll(1s, 0ms, 0ms);
    EXPECT_EQ(captures(4), 0);
    EXPECT_EQ(report, "Total sample count: 0\nIteration count: 2\nParallelism: 4\n\n");
}

TEST_F(Sampling, WhatACallbackThrowsReachesTheCallerAfterAllWorkersEnded) {
    scripted::setHardwareThreads(16);
    answer = [](unsigned int, auto&) -> unsigned long long {
        if (issuedThreadIds().empty()) {
            return 0;  // the capture before the run
        }
        // The thread is due once only: another worker is asleep by now, for ever, and the rest
        // wait behind it.
        while (scripted::sleeps().empty()) {
            std::this_thread::yield();
        }
        throw std::runtime_error("no more");
    };
    const auto forever = std::chrono::seconds::max();
    EXPECT_THROW(sampleFocus(forever, milliseconds::max()), std::runtime_error);
    EXPECT_EQ(issuedThreadIds().size(), 8u);
    EXPECT_EQ(liveWorkers, 0);

    std::atomic<int> calls = 0;
    answer = [&](unsigned int, auto&) -> unsigned long long {
        const int call = ++calls;
        while (call == 2 && (calls < 3 || liveWorkers < 8)) {
            std::this_thread::yield();
        }
        while (call == 3 && (calls < 4 || liveWorkers > 1)) {
            std::this_thread::yield();
        }
        return call == 2 || call == 3 ? throw call : 0;
    };
    try {
        sampleFocus(forever, 0ms);
        ADD_FAILURE();
    } catch (int first) {
        EXPECT_EQ(first, 2);
    }
    issued.clear();

    answer = [](unsigned int, auto&) -> unsigned long long { throw 42; };
    EXPECT_THROW(sampleFocus(forever, 0ms), int) << "the first capture is the caller's own";
    EXPECT_TRUE(issuedThreadIds().empty());
}

#if !defined(_WIN32)  // where `pthread_exit` unwinds nothing
TEST_F(Sampling, ACallbackThatEndsItsThreadEndsTheRun) {
    if (!threadsMayUnwind) {
        GTEST_SKIP() << unwindersDisagree;
    }
    scripted::setHardwareThreads(16);
    std::atomic<int> calls = 0;
    answer = [&](unsigned int, auto&) -> unsigned long long {
        if (++calls == 2) {  // the first is the caller's own
            pthread_exit(nullptr);
        }
        return 0;
    };
    EXPECT_EQ(sampleFocus(std::chrono::seconds::max(), 0ms),
              "Total sample count: 0\nParallelism: 8\n\n");
    EXPECT_EQ(liveWorkers, 0);
}
#endif

TEST_F(Sampling, ByCallbackBearsAnyDurationAndInterval) {
    EXPECT_EQ(sampleAll(-5s, 0ms, 0ms),
              "Total sample count: 0\nIteration count: 0\nParallelism: 1\n\n");
    EXPECT_EQ(captured, Ids{4});
    scripted::setAdvancePerReading(400ms);
    EXPECT_EQ(sampleFocus(1s, milliseconds::min()).substr(0, 22), "Total sample count: 1\n");
    EXPECT_EQ(sampleFocus(1s, 1min).substr(0, 22), "Total sample count: 1\n");
    answer = [](unsigned int, auto&) -> unsigned long long {
        scripted::advanceClock(1h);
        return 0;
    };
    EXPECT_EQ(sampleFocus(1s, milliseconds::max()).substr(0, 22), "Total sample count: 0\n");
}

}  // namespace
}  // namespace ThreadUtilities
