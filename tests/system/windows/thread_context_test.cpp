// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/thread_context.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <chrono>
#include <thread>
#include <vector>

#include "windows_support/child_process.h"
#include "windows_support/target_thread.h"

namespace ThreadUtilities::platform {
namespace {

using tests::ChildProcess;
using tests::TargetThread;

struct Sight {
    HANDLE thread = nullptr;
    int visits = 0;
    ThreadContext context;
    unsigned int suspendCount = 0;
};

Sight sight;

VisitorAnswer look(const ThreadContext& context, VisitRoom&) noexcept {
    ++sight.visits;
    sight.context = context;
    sight.suspendCount = SuspendThread(sight.thread);
    ResumeThread(sight.thread);
    return VisitorAnswer::Enough;
}

VisitResult visit(unsigned int threadId, bool suspend, ContextVisitor visitor) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    unsigned long long frame = 0;
    return visitThreadContext({threadId, suspend, visitor, deadline}, {&frame, 1}).result;
}

TEST(ThreadContext, AThreadStandsExactlyForTheVisit) {
    for (const TargetThread::Body body : {TargetThread::block, TargetThread::spin}) {
        TargetThread target(body);
        for (const bool suspend : {true, false}) {
            sight = {};
            sight.thread = target.handle();
            EXPECT_EQ(visit(target.id(), suspend, look), VisitResult::Visited);
            EXPECT_EQ(sight.visits, 1);
            EXPECT_EQ(sight.suspendCount, suspend ? 1u : 0u);
            EXPECT_EQ(sight.context.isStopped, suspend);
            EXPECT_EQ(target.suspendCount(), 0u);

            MEMORY_BASIC_INFORMATION stack{};
            VirtualQuery(reinterpret_cast<void*>(sight.context.registers[Rsp]), &stack,
                         sizeof(stack));
            EXPECT_EQ(stack.Type, static_cast<DWORD>(MEM_PRIVATE));
            EXPECT_NE(sight.context.registers[Rip], 0u);
        }
    }
}

// The second thread is suspended as often as the system counts: a visit finds it at a standstill,
// and must not resume what it could not suspend.
TEST(ThreadContext, AVisitEndsOnlyItsOwnSuspension) {
    for (const unsigned int suspensions : {1u, static_cast<unsigned int>(MAXIMUM_SUSPEND_COUNT)}) {
        TargetThread target(TargetThread::block);
        for (unsigned int count = 0; count < suspensions; ++count) {
            SuspendThread(target.handle());
        }
        sight = {};  // without the thread, whose count the visitor would change
        EXPECT_EQ(visit(target.id(), true, look), VisitResult::Visited);
        EXPECT_EQ(sight.visits, 1);
        for (unsigned int count = suspensions; count > 0; --count) {
            EXPECT_EQ(ResumeThread(target.handle()), count);
        }
    }
}

TEST(ThreadContext, WhatIsNoThreadOfThisProcessIsNotVisited) {
    TargetThread ended(TargetThread::block);
    ended.end();  // its handle, and with it its id, are kept
    ChildProcess other(std::string("\"") + TEST_CHILD + "\" debugger", CREATE_SUSPENDED);
    ASSERT_TRUE(other.hasStarted());

    for (const unsigned int threadId : {0u, 0xFFFFFFFCu, ended.id(), other.primaryThreadId()}) {
        for (const bool suspend : {true, false}) {
            sight = {};
            EXPECT_EQ(visit(threadId, suspend, look), VisitResult::NoSuchThread);
            EXPECT_EQ(sight.visits, 0);
        }
    }
    EXPECT_EQ(ResumeThread(other.primaryThread()), 1u) << "its own suspension at creation";
}

// Threads that visit each other would stop each other for good, were it not for the order of
// visits; the program's time limit is the watchdog.
TEST(ThreadContext, ThreadsThatVisitEachOtherAllGoOn) {
    constexpr int threadCount = 4;
    constexpr int rounds = 500;
    std::atomic<unsigned int> ids[threadCount] = {};
    std::atomic<int> visited = 0;
    std::vector<std::thread> threads;
    std::atomic<int> finished = 0;
    for (int self = 0; self < threadCount; ++self) {
        threads.emplace_back([&, self] {
            ids[self] = GetCurrentThreadId();
            for (int round = 0; round < rounds; ++round) {
                const unsigned int target = ids[(self + 1 + round) % threadCount];
                const auto nothing = [](const ThreadContext&, VisitRoom&) noexcept {
                    return VisitorAnswer::Enough;
                };
                if (target != 0 && target != GetCurrentThreadId() &&
                    visit(target, true, nothing) == VisitResult::Visited) {
                    ++visited;
                }
            }
            ++finished;
            while (finished < threadCount) {  // nobody's target ends early
                std::this_thread::yield();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_GT(visited, rounds);
}

}  // namespace
}  // namespace ThreadUtilities::platform
