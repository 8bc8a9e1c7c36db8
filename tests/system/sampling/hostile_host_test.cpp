// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// What a host may do while it is sampled.

#include <ThreadUtilities/Sampling.h>
#include <ThreadUtilities/Threads.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>
#include <system_error>
#include <thread>

#include "support/fork_child.h"
#include "support/sanitizers.h"

namespace ThreadUtilities {
namespace {

using namespace std::chrono_literals;

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

TEST(HostileHost, ACallbackThatEndsItsThreadEndsTheRun) {
    const std::size_t before = ownThreadCount();
    const std::thread::id caller = std::this_thread::get_id();
    const std::string report =
        sampleProcessThread(static_cast<unsigned int>(getpid()), getThreadId(), 1h, 0ms,
                            [caller](auto...) -> unsigned long long {
                                if (std::this_thread::get_id() != caller) {
                                    pthread_exit(nullptr);
                                }
                                return 0;
                            });
    EXPECT_EQ(report.find("Total sample count: 0\n"), 0u) << report;
    EXPECT_EQ(ownThreadCount(), before);
}

}  // namespace
}  // namespace ThreadUtilities
