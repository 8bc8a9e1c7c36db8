// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/StackTrace.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <fstream>
#include <semaphore>
#include <string_view>

#include "platform/run_witness.h"
#include "platform/thread_context.h"
#include "support/fork_child.h"
#include "support/sanitizers.h"
#include "support/target_thread.h"

// Threads that wait in the kernel are looked at from outside, and must be the right ones, standing.

namespace ThreadUtilities {
namespace {

using platform::ThreadContext;
using platform::VisitorAnswer;

// A thread that runs once for each release, and is then back in the same wait.
struct Turns {
    unsigned int threadId = 0;
    std::counting_semaphore<> releases{0};
    std::atomic<int> made{0};
    std::atomic<int> visits{0};
    std::atomic<bool> areOver{false};
} turns;

void makeOneTurn() {
    const int before = turns.made;
    turns.releases.release();
    EXPECT_TRUE(
        eventually([&] { return turns.made != before && kernelViewOf(turns.threadId).sleeps; }));
}

TEST(AThreadAtRest, IsVisitedAgainWhenItRanMeanwhile) {
    if (underAddressSanitizer) {
        GTEST_SKIP() << framePointersAreKept;
    }
    TargetThread target([](const auto&) {
        while (!turns.areOver) {
            turns.releases.acquire();
            ++turns.made;
        }
    });
    turns.threadId = target.id();
    EXPECT_TRUE(eventually([] { return kernelViewOf(turns.threadId).sleeps; }));
    // When the visitor returns, everything looks as it did; but it has seen two moments.
    const auto letItRun = [](const ThreadContext& context, platform::VisitRoom& room) noexcept {
        EXPECT_FALSE(context.isStopped) << "woken to be looked at";
        if (++turns.visits == 1) {
            makeOneTurn();
        }
        room.frames[0] = static_cast<unsigned long long>(turns.visits);
        room.frameCount = 1;
        return VisitorAnswer::Enough;
    };
    std::array<unsigned long long, 1> frames{};
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    const platform::Visit visit =
        platform::visitThreadContext({target.id(), true, letItRun, deadline}, frames);
    EXPECT_EQ(visit.result, platform::VisitResult::Visited);
    EXPECT_EQ(frames[0], 2U) << "the first visit did not see one moment";
    const platform::RunWitness witness(target.id());
    EXPECT_EQ(visit.atRest, witness.read());
    makeOneTurn();
    EXPECT_NE(visit.atRest, witness.read());

    turns.areOver = true;
    turns.releases.release();
    target.join();
    EXPECT_FALSE(witness.read()) << "of a thread that has ended";
}

[[gnu::noinline]] void waitHere(const std::atomic<bool>& stop) {
    while (!stop) {
        poll(nullptr, 0, 10);
    }
}

[[gnu::noinline]] void waitElsewhere(const std::atomic<bool>& stop) {
    while (!stop) {
        poll(nullptr, 0, 10);
    }
    asm volatile("");
}

bool passesThrough(unsigned int threadId, void (*function)(const std::atomic<bool>&)) {
    std::array<unsigned long long, 64> frames{};
    const auto count = getStackTrace(threadId, frames.data(), frames.size(), true);
    const auto begin = reinterpret_cast<unsigned long long>(function);
    return std::any_of(frames.begin(), frames.begin() + count,
                       [&](auto frame) { return frame > begin && frame < begin + 64; });
}

// The number by which /proc knows the calling thread.
unsigned int idInProc() {
    std::array<char, 64> link{};
    const auto length = readlink("/proc/thread-self", link.data(), link.size() - 1);
    const std::string_view text(link.data(),
                                static_cast<std::size_t>(std::max(length, ssize_t{0})));
    unsigned int id = 0;
    const auto slash = text.rfind('/');
    if (slash != std::string_view::npos) {
        std::from_chars(text.data() + slash + 1, text.data() + text.size(), id);
    }
    return id;
}

constexpr int notPossible = 77;

// Two threads: here, the second has the number by which /proc knows the first.
int captureUnderAForeignProc() {
    std::atomic<unsigned int> outerId{0};
    TargetThread first([&](const auto& stop) {
        outerId = idInProc();
        waitElsewhere(stop);
    });
    if (!eventually([&] { return outerId != 0; })) {
        return 1;
    }
    std::ofstream lastId("/proc/sys/kernel/ns_last_pid");
    lastId << outerId - 1 << std::flush;
    TargetThread second(waitHere);
    if (!lastId || second.id() != outerId) {
        return notPossible;
    }
    bool isRight = true;
    for (int round = 0; round < 100; ++round) {
        isRight = isRight && passesThrough(second.id(), waitHere) &&
                  !passesThrough(second.id(), waitElsewhere) &&
                  !passesThrough(first.id(), waitHere);
    }
    return isRight ? 0 : 1;
}

TEST(UnderTheProcOfAnotherNamespace, NoThreadIsTakenForAnother) {
    ForkChild outside([] {
        if (unshare(CLONE_NEWPID) != 0) {
            return notPossible;
        }
        return ForkChild(captureUnderAForeignProc).result();
    });
    const int result = outside.result();
    if (result == notPossible) {
        GTEST_SKIP() << "needs a namespace of process ids, and to choose one";
    }
    EXPECT_EQ(result, 0);
}

TEST(AThreadsOwnFiles, AreNotThoseOfTheProcess) {
    const int shared = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(shared, 3);
    bool isGoneThere = false;
    int firstNumber = 0;
    std::thread([&] {
        if (platform::separateOpenFiles() == 0) {
            firstNumber = -1;
            return;
        }
        isGoneThere = fcntl(shared, F_GETFD) < 0;
        firstNumber = open("/dev/null", O_RDONLY | O_CLOEXEC);
    }).join();
    if (firstNumber < 0) {
        GTEST_SKIP() << "the kernel has no close_range";
    }
    EXPECT_TRUE(isGoneThere);
    EXPECT_EQ(firstNumber, 3);
    EXPECT_GE(fcntl(shared, F_GETFD), 0);
    close(shared);
}

}  // namespace
}  // namespace ThreadUtilities
