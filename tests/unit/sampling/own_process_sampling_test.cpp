// Sampling of the calling process over a made-up clock.

#include <ThreadUtilities/Sampling.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>

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

TEST_F(OwnProcessSampling, TakesEachThreadOncePerInterval) {
    // Every reading of the clock takes 1 ms: each turn ends within the interval of 100 ms.
    scripted::setAdvancePerReading(1ms);
    const std::string report = sampleAllThreads(1s, 100ms);
    for (const unsigned int thread : {11u, 12u}) {
        EXPECT_GE(captures(thread), 8) << thread;
        EXPECT_LE(captures(thread), 10) << thread;
        const std::string count = std::to_string(captures(thread));
        const std::string id = std::to_string(thread);
        const std::string block = "Thread " + id + " [" + count + "]: \n  [" + count +
                                  "]: frame 0/10" + id + "\n   [" + count + "]: frame 0/20" + id +
                                  "\n\n";
        EXPECT_NE(report.find(block), std::string::npos) << report;
    }
    EXPECT_EQ(report.find("Total sample count: " + std::to_string(captured.size()) + "\n"), 0u);
    EXPECT_TRUE(scripted::sleeps().empty()) << "this worker never sleeps";
    EXPECT_GT(scripted::yieldCount(), 0u) << "but lets others run when nothing is due";
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
    EXPECT_EQ(scripted::yieldCount(), 0u) << "every pass found something due";
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
    // Returns only when both workers capture at the same time.
    tests::Latch bothCapture(2);
    layers.captureOwn = [&](unsigned int) {
        bothCapture.arrive_and_wait();
        scripted::advanceClock(1h);
        return Frames{1};
    };
    EXPECT_EQ(sampleAllThreads(1s, 1min).substr(0, 22), "Total sample count: 2\n");
}

TEST_F(OwnProcessSampling, WhatAWorkerThrowsReachesTheCaller) {
    scripted::setHardwareThreads(6);
    layers.captureOwn = [](unsigned int) -> Frames { throw std::bad_alloc(); };
    EXPECT_THROW(sampleAllThreads(std::chrono::seconds::max(), 0ms), std::bad_alloc);
}

}  // namespace
}  // namespace ThreadUtilities
