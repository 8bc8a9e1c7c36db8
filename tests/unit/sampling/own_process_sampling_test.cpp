// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Sampling of the calling process over a made-up clock.

#include <ThreadUtilities/Sampling.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "scripted_platform/clock_script.h"
#include "support/latch.h"
#include "unit/sampling/lower_layers.h"

namespace ThreadUtilities {
namespace {

using namespace std::chrono_literals;
using Frames = std::vector<unsigned long long>;

class OwnProcessSampling : public testing::Test {
 protected:
    OwnProcessSampling() : layers(scripted::resetLowerLayers()) {
        scripted::resetClock();
        scripted::setHardwareThreads(2);
        layers.threads[0] = {11, 12};
        layers.captureOwn = [this](unsigned int threadId) {
            const std::lock_guard lock(mutex);
            captured.push_back(threadId);
            return Frames{threadId + 2000ull, threadId + 1000ull};
        };
    }

    std::ptrdiff_t captures(unsigned int threadId) const {
        return std::count(captured.begin(), captured.end(), threadId);
    }

    scripted::LowerLayers& layers;
    std::mutex mutex;
    std::vector<unsigned int> captured;
};

// Time passes in sleeps alone.
TEST_F(OwnProcessSampling, WaitsUntilAThreadIsDueAndLooksForNewOnesMeanwhile) {
    int fetches = 0;
    layers.onThreadList = [&] {
        if (++fetches == 5) {  // 4 ms after the beginning
            layers.threads[0].push_back(13);
        }
    };
    const std::string report = sampleAllThreads(1s, 100ms);
    // A fetch after each of 1000 waits.
    EXPECT_EQ(report.find("Total sample count: 30\nIteration count: 1000\nParallelism: 1\n\n"), 0u)
        << report;
    for (const std::string id : {"11", "12", "13"}) {
        const std::string block = "Thread " + id + " [10]: \n  [10]: frame 0/10" + id +
                                  "\n   [10]: frame 0/20" + id + "\n\n";
        EXPECT_NE(report.find(block), std::string::npos) << report;
    }
    const auto sleeps = scripted::sleeps();
    EXPECT_EQ(std::count(sleeps.begin(), sleeps.end(), std::chrono::nanoseconds(1ms)), 1000);
    EXPECT_EQ(sleeps.size(), 1000u);
}

TEST_F(OwnProcessSampling, CountsEveryPassAndFetchesTheListForEach) {
    int fetches = 0;
    layers.onThreadList = [&] {
        // A third thread shows up in the second pass, and only there.
        ++fetches;
        layers.threads[0] =
            fetches == 2 ? std::vector<unsigned int>{11, 13} : std::vector<unsigned int>{11};
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

TEST_F(OwnProcessSampling, ParallelismIsHalfTheHardwareThreads) {
    const std::pair<unsigned int, unsigned int> cases[] = {{0, 1}, {1, 1}, {3, 1}, {4, 2}, {17, 8}};
    for (const auto& [hardware, workers] : cases) {
        scripted::setHardwareThreads(hardware);
        scripted::resetLowerLayers();
        for (const auto duration : {0s, std::chrono::seconds::min()}) {
            EXPECT_EQ(sampleAllThreads(duration, 0ms),
                      "Total sample count: 0\nIteration count: 0\nParallelism: " +
                          std::to_string(workers) + "\n\n");
        }
        EXPECT_EQ(scripted::issuedThreadIds().size(), 2 * workers);
    }
}

TEST_F(OwnProcessSampling, AnEmptyListEndsEveryWorker) {
    layers.threads[0] = {};
    scripted::setHardwareThreads(6);
    EXPECT_EQ(sampleAllThreads(std::chrono::seconds::max(), 0ms),
              "Total sample count: 0\nIteration count: 3\nParallelism: 3\n\n");
}

TEST_F(OwnProcessSampling, WorkersAreNeverSampled) {
    scripted::setHardwareThreads(8);
    layers.threads[0] = {11};
    layers.showsWorkers = true;
    std::atomic<int> capturesByAll = 0;
    const auto capture = layers.captureOwn;
    layers.captureOwn = [&](unsigned int threadId) {
        // Time stands still until all workers are there and the list has shown them for a while.
        if (scripted::issuedThreadIds().size() == 4 && ++capturesByAll == 20) {
            scripted::advanceClock(1h);
        }
        return capture(threadId);
    };
    const std::string report = sampleAllThreads(1s, 0ms);
    EXPECT_EQ(static_cast<std::size_t>(captures(11)), captured.size());
    EXPECT_EQ(report.find("Thread 9"), std::string::npos) << report;
}

TEST_F(OwnProcessSampling, CapturesOfSeveralWorkersOverlap) {
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

TEST_F(OwnProcessSampling, WorkersThatWaitForOneAnotherAllEnd) {
    scripted::setHardwareThreads(16);
    layers.threads[0] = {11, 12, 13, 14, 15};
    layers.captureOwn = [](unsigned int) { return Frames{1}; };
    EXPECT_NE(sampleAllThreads(10s, 1ms), "");
    // Also where one of them ends by itself, while the time stands still.
    layers.captureOwn = [count = std::make_shared<std::atomic<int>>()](unsigned int) {
        return ++*count == 1000 ? throw std::bad_alloc() : Frames{1};
    };
    EXPECT_THROW(sampleAllThreads(std::chrono::seconds::max(), 1ms), std::bad_alloc);
}

}  // namespace
}  // namespace ThreadUtilities
