// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Reports of a real program, this one, whatever it does while it is sampled.

#include <ThreadUtilities/Sampling.h>
#include <ThreadUtilities/StackTrace.h>
#include <ThreadUtilities/Threads.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "support/forced_unwinding.h"
#include "support/fork_child.h"
#include "support/sanitizers.h"
#include "support/target_thread.h"
#include "threads/thread_list.h"

// Reports of a real program: this one.

// What a host may do while it is sampled.

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
    const TargetThread polling(blockUntil);
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
    std::atomic<bool> isListed = false;  // no start may fall into the first listing
    std::atomic<bool> isAwake = false;
    bool couldSleep = false;
    std::jthread sleeper([&] {
        // A thread may still be on its way out in one listing or another.
        for (int tries = 0; tries < 1000 && !couldSleep; ++tries) {
            getThreadIds();
            const auto seen = announcedStarts();
            isListed = true;
            couldSleep = sleepUntilThreadStarts(seen, std::chrono::steady_clock::time_point::max());
        }
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

std::size_t ownThreadCount() {
    return getThreadIds(static_cast<unsigned int>(getpid())).size();
}

TEST(HostileHost, ACopyMadeDuringASamplingCallCanSampleItself) {
    if (underAddressSanitizer || underThreadSanitizer) {
        GTEST_SKIP() << copiesMayHang;
    }
    const std::jthread sampler([](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            sampleAllThreads(1s, 0ms);
        }
    });
    for (int round = 0; round < 50; ++round) {
        const bool takesTime = round % 25 == 0;
        const int status = runInForkChild([takesTime] {
            const std::string report = sampleAllThreads(takesTime ? 1s : 0s, 100ms);
            const std::string self = "\n\nThread " + std::to_string(getThreadId()) + " [";
            const bool isSampled = report.find(self) != std::string::npos;
            return isSampled == takesTime && ownThreadCount() == 1 ? 0 : 1;
        });
        ASSERT_EQ(status, 0) << "round " << round;
    }
}

TEST(HostileHost, AWorkerThatCannotBeStartedIsAnException) {
    if (underAddressSanitizer || underThreadSanitizer) {
        GTEST_SKIP() << "sanitizers want more address space than the limit leaves";
    }
    const int status = runInForkChild([] {
        // Stacks that the address space has no room for.
        constexpr std::size_t stackSize = std::size_t{1} << 32;
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, stackSize);
        pthread_setattr_default_np(&attributes);
        const rlimit limit{stackSize / 2, stackSize / 2};
        setrlimit(RLIMIT_AS, &limit);
        try {
            sampleAllThreads(1h, 0ms);
            return 1;
        } catch (const std::system_error&) {
            return ownThreadCount() == 1 ? 0 : 2;
        }
    });
    EXPECT_EQ(status, 0);
}

TEST(HostileHost, ACancelledCallEndsWithItsWorkers) {
    if (!threadsMayUnwind) {
        GTEST_SKIP() << unwindersDisagree;
    }
    if (underThreadSanitizer) {
        GTEST_SKIP() << "ThreadSanitizer cannot join a thread again whose join was cancelled";
    }
    const std::size_t before = ownThreadCount();
    pthread_t thread;
    pthread_create(
        &thread, nullptr,
        [](void*) -> void* {
            sampleAllThreads(1h, 10ms);
            return nullptr;
        },
        nullptr);
    while (ownThreadCount() < before + 2) {  // the call's own thread and its first worker
        std::this_thread::yield();
    }
    pthread_cancel(thread);
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(ownThreadCount(), before);
}

}  // namespace
}  // namespace ThreadUtilities
