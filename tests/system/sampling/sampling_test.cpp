// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Reports of a real program: this one.

#include <ThreadUtilities/Sampling.h>
#include <ThreadUtilities/StackTrace.h>
#include <ThreadUtilities/Threads.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/target_thread.h"
#include "threads/thread_list.h"

namespace ThreadUtilities {
namespace {

using namespace std::chrono_literals;

/// How many threads a report shows.
std::size_t threadsIn(const std::string& report) {
    std::size_t count = 0;
    for (auto place = report.find("\nThread "); place != std::string::npos; ++count) {
        place = report.find("\nThread ", place + 1);
    }
    return count;
}

std::string headingOf(unsigned int threadId) {
    return "\nThread " + std::to_string(threadId) + " [";
}

bool showsMainThreadFirst(const std::string& report) {
    return report.find("\nThread ") == report.find(headingOf(getMainThreadId()));
}

// Both kept whole, so that a sample of the spinning thread has a return address in `spinInTurns`.
[[gnu::noinline, gnu::used]] void spinABit() {
    for (int turn = 0; turn < 100'000; ++turn) {
        asm volatile("");
    }
}
[[gnu::noinline, gnu::used]] void spinInTurns(const std::atomic<bool>& stop) {
    while (!stop) {
        spinABit();
    }
}

TEST(Sampling, AReportShowsWhereEachThreadIs) {
    TargetThread spinning([](const std::atomic<bool>& stop) {
        setThreadName("spinner");
        spinInTurns(stop);
    });
    TargetThread polling([](const std::atomic<bool>& stop) {
        while (!stop) {
            poll(nullptr, 0, 20);
        }
    });
    const std::string report = sampleAllThreads(1s, 5ms);
    EXPECT_TRUE(showsMainThreadFirst(report)) << report;
    EXPECT_EQ(threadsIn(report), 3U) << "this thread and two others, no sampler: " << report;

    const auto begin = report.find(headingOf(spinning.id()));
    ASSERT_NE(begin, std::string::npos) << report;
    const std::string block = report.substr(begin, report.find("\n\n", begin) + 1 - begin);
    EXPECT_NE(block.find("]: spinner\n"), std::string::npos) << block;
    bool hasReturnAddress = false;
    const auto function = reinterpret_cast<unsigned long long>(&spinInTurns);
    for (auto address = function + 1; address < function + 100; ++address) {
        const std::wstring text = getFrameDetails(0, address);
        hasReturnAddress |=
            block.find("]: " + std::string(text.begin(), text.end()) + '\n') != std::string::npos;
    }
    EXPECT_TRUE(hasReturnAddress) << block;
}

TEST(SamplingOfThisProcess, SeveralRunsAtOnceShareNothingWhileThreadsComeAndGo) {
    const std::jthread starter([](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            std::jthread([] { setThreadName("brief"); }).join();
        }
    });
    std::vector<std::string> reports(3);
    {
        std::vector<std::jthread> runs;
        for (std::string& report : reports) {
            runs.emplace_back([&] { report = sampleAllThreads(1s, 20ms); });
        }
    }
    for (const std::string& report : reports) {
        EXPECT_GE(threadsIn(report), 4U) << report;
        EXPECT_TRUE(showsMainThreadFirst(report)) << report;
    }
}

// Without a wake-up the sleeper would never end.
TEST(SamplingOfThisProcess, AThreadThatStartsWakesWhoWaitsForOne) {
    std::atomic<bool> isListed = false;  // no start may fall into the listing
    std::atomic<bool> isAwake = false;
    bool couldSleep = false;
    std::jthread sleeper([&] {
        getThreadIds();
        const auto seen = announcedStarts();
        isListed = true;
        couldSleep = sleepUntilThreadStarts(seen, std::chrono::steady_clock::time_point::max());
        isAwake = true;
    });
    while (!isListed) {
        std::this_thread::yield();
    }
    while (!isAwake) {
        std::jthread([] {}).join();
    }
    sleeper.join();
    if (!couldSleep) {
        GTEST_SKIP() << "thread starts are not heard of here";
    }
}

}  // namespace
}  // namespace ThreadUtilities
