// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Sampling through a callback over a made-up clock.

#include <ThreadUtilities/Sampling.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <locale>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "scripted_platform/clock_script.h"
#include "support/sanitizers.h"
#include "unit/sampling/lower_layers.h"

namespace ThreadUtilities {
namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;

constexpr unsigned int process = 77;
constexpr unsigned int focus = 5;

using Answer = std::function<unsigned long long(unsigned int, std::vector<unsigned long long>&)>;

class CallbackSampling : public testing::Test {
 protected:
    CallbackSampling() : layers(scripted::resetLowerLayers()) {
        scripted::resetClock();
        scripted::setHardwareThreads(2);
        layers.threads[process] = {4, focus, 6};
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
        return [this](unsigned int processId, const unsigned int& threadId,
                      std::vector<unsigned long long>& frames, unsigned long long limit) {
            EXPECT_EQ(processId, process);
            EXPECT_EQ(limit, 256u);
            {
                const std::lock_guard lock(mutex);
                calls.push_back(threadId);
                rooms.push_back(frames.size());
            }
            return answer(threadId, frames);
        };
    }

    std::ptrdiff_t callsFor(unsigned int threadId) {
        const std::lock_guard lock(mutex);
        return std::count(calls.begin(), calls.end(), threadId);
    }

    /// An answer that lets time stand still until each of the three threads was captured more often
    /// than `enough` times from here on.
    Answer endAfter(unsigned long long frameCount, std::ptrdiff_t enough) {
        calls.clear();
        return [this, frameCount, enough](unsigned int, std::vector<unsigned long long>& frames) {
            frames.resize(256);
            // The first capture of thread 4 is before the run.
            if (callsFor(4) > enough + 1 && callsFor(focus) > enough && callsFor(6) > enough) {
                scripted::advanceClock(1h);
            }
            return frameCount;
        };
    }

    scripted::LowerLayers& layers;
    Answer answer = [](unsigned int, std::vector<unsigned long long>& frames) {
        frames.resize(std::max<std::size_t>(frames.size(), 1));
        frames[0] = 10;
        return 1ull;
    };
    std::mutex mutex;
    std::vector<unsigned int> calls;  ///< for which thread
    std::vector<std::size_t> rooms;   ///< entries in the frame vector before the call
};

TEST_F(CallbackSampling, AnEmptyCallbackGivesAnEmptyReport) {
    EXPECT_EQ(sampleProcessThread(process, focus, 1h, 0ms, nullptr), "");
    EXPECT_EQ(sampleProcessAllThread(process, focus, 1h, 0ms, 0ms, StackCaptureCallback()), "");
    EXPECT_TRUE(scripted::issuedThreadIds().empty());
}

TEST_F(CallbackSampling, FocusThreadIsSampledOncePerIntervalAndSleptFor) {
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
}

TEST_F(CallbackSampling, NothingCapturedIsDroppedForTheFocusThreadOnly) {
    answer = [](unsigned int, auto&) { return 0ull; };
    scripted::setAdvancePerReading(10ms);
    EXPECT_EQ(sampleFocus(1s, 0ms), "Total sample count: 0\nParallelism: 1\n\n");
    EXPECT_GT(calls.size(), 10u);

    scripted::resetClock();
    scripted::setHardwareThreads(8);
    answer = endAfter(0, 0);
    const std::string report = sampleAll(1s, 0ms, 0ms);
    EXPECT_EQ(report.find("Thread 5"), std::string::npos);
    EXPECT_NE(report.find("Thread 4 ["), std::string::npos) << report;
    EXPECT_EQ(report.find("frame"), std::string::npos);
}

TEST_F(CallbackSampling, NoMoreFramesAreReadThanThereAre) {
    scripted::setAdvancePerReading(400ms);
    answer = [](unsigned int, std::vector<unsigned long long>& frames) {
        frames.assign(3, 7);
        return ~0ull;
    };
    EXPECT_EQ(sampleFocus(1s, 0ms),
              "Total sample count: 1\nParallelism: 1\n\n"
              "Thread 5 [1]: \n  [1]: frame 77/7\n   [1]: frame 77/7\n    [1]: frame 77/7\n\n");
    answer = [](unsigned int, std::vector<unsigned long long>& frames) {
        frames.clear();
        return 5ull;
    };
    EXPECT_EQ(sampleFocus(1s, 0ms).substr(0, 22), "Total sample count: 0\n");
    if (underThreadSanitizer) {
        return;  // the printout holds a lock per level, and ThreadSanitizer follows 64 at most
    }
    answer = [](unsigned int, std::vector<unsigned long long>& frames) {
        frames.assign(1000, 7);
        return 1000ull;
    };
    const std::string report = sampleFocus(1s, 0ms);
    EXPECT_EQ(std::count(report.begin(), report.end(), '/'), 256);
}

TEST_F(CallbackSampling, OtherThreadsAreSampledFromFourWorkersOn) {
    scripted::setHardwareThreads(6);
    scripted::setAdvancePerReading(1ms);
    const std::string few = sampleAll(1s, 50ms, 50ms);
    EXPECT_EQ(calls[0], 4u) << "the first capture goes to the first of the list";
    EXPECT_EQ(callsFor(focus) + 1, std::ssize(calls));
    EXPECT_NE(few.find("\nIteration count: 0\nParallelism: 3\n\nThread 5 ["), std::string::npos);

    scripted::resetClock();
    scripted::setHardwareThreads(8);
    answer = endAfter(1, 2);
    const std::string many = sampleAll(1s, 0ms, 0ms);
    for (const unsigned int thread : {4u, focus, 6u}) {
        EXPECT_NE(many.find("Thread " + std::to_string(thread) + " ["), std::string::npos);
    }
    EXPECT_EQ(many.find("\nIteration count: 0\n"), std::string::npos) << many;
    EXPECT_NE(many.find("\nParallelism: 4\n"), std::string::npos);
}

TEST_F(CallbackSampling, WithoutTimeOnlyTheFirstCaptureIsMade) {
    EXPECT_EQ(sampleFocus(0s, 0ms), "Total sample count: 0\nParallelism: 1\n\n");
    EXPECT_EQ(calls.size(), 1u);
    EXPECT_EQ(sampleAll(-5s, 0ms, 0ms),
              "Total sample count: 0\nIteration count: 0\nParallelism: 1\n\n");
    EXPECT_EQ(calls.size(), 2u);
}

TEST_F(CallbackSampling, AnUnknownProcessHasNoFirstCaptureAndNoThreads) {
    layers.threads[process] = {};
    scripted::setHardwareThreads(8);
    answer = [](unsigned int, auto&) -> unsigned long long {
        // Time stands still until the two workers with nothing to do have ended.
        if (scripted::issuedThreadIds().size() == 4 && scripted::liveWorkers() == 2) {
            scripted::advanceClock(1h);
        }
        return 0;
    };
    const std::string report = sampleAll(1s, 0ms, 0ms);
    EXPECT_EQ(callsFor(4), 0);
    EXPECT_NE(report.find("\nIteration count: 2\nParallelism: 4\n\n"), std::string::npos)
        << "each of the two other-threads workers: " << report;
    EXPECT_EQ(report.find("Thread"), std::string::npos);
}

TEST_F(CallbackSampling, WhatACallbackThrowsReachesTheCallerAfterAllWorkersEnded) {
    scripted::setHardwareThreads(16);
    answer = [](unsigned int, auto&) -> unsigned long long {
        if (scripted::issuedThreadIds().empty()) {
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
    EXPECT_EQ(scripted::issuedThreadIds().size(), 8u);
    EXPECT_EQ(scripted::liveWorkers(), 0);

    answer = [](unsigned int, auto&) -> unsigned long long { throw 42; };
    EXPECT_THROW(sampleFocus(forever, 0ms), int) << "the first capture is the caller's own";
    EXPECT_EQ(scripted::issuedThreadIds().size(), 8u);
}

TEST_F(CallbackSampling, EndlessIntervalsAreNoOverflow) {
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
