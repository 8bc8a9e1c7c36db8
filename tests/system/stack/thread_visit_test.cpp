// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/StackTrace.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <csignal>
#include <ctime>
#include <fstream>
#include <latch>
#include <semaphore>
#include <string_view>

#include "platform/run_witness.h"
#include "platform/thread_context.h"
#include "stack/capture_session.h"
#include "support/fork_child.h"
#include "support/sanitizers.h"
#include "support/target_thread.h"

// Visits to threads that are not there, that do not answer, or that wait in the kernel: those are
// looked at from outside, and must be the right ones, standing.

namespace ThreadUtilities {
namespace {

using platform::ThreadContext;
using platform::VisitorAnswer;
using platform::VisitResult;

std::atomic<int> visits{0};

VisitResult visit(unsigned int threadId, std::chrono::seconds patience = std::chrono::seconds(1)) {
    visits = 0;
    const auto look = [](const ThreadContext&, platform::VisitRoom&) noexcept {
        ++visits;
        return VisitorAnswer::Enough;
    };
    std::array<unsigned long long, 1> frames{};
    const auto deadline = std::chrono::steady_clock::now() + patience;
    return platform::visitThreadContext({threadId, true, look, deadline}, frames).result;
}

TEST(ThreadVisit, ThreadsThatAreNotOursDoNotExist) {
    unsigned int ended = 0;
    {
        TargetThread target([](const auto&) {});
        ended = target.id();
    }
    for (const unsigned int id : {0U, 1U, ended, 0x7fffffffU, 0x80000000U, 0xffffffffU}) {
        EXPECT_EQ(visit(id), VisitResult::NoSuchThread) << id;
        EXPECT_EQ(visits, 0) << id;
    }
}

// As no mask that the C library makes can.
void blockEverySignal(bool block) {
    const std::uint64_t everything = ~std::uint64_t{0};
    syscall(SYS_rt_sigprocmask, block ? SIG_BLOCK : SIG_UNBLOCK, &everything, nullptr,
            sizeof(everything));
}

TEST(ThreadVisit, AThreadThatBlocksTheSignalIsGivenUpAndNeverVisitedLate) {
    std::atomic<bool> blocked{false};
    std::atomic<bool> unblock{false};
    std::atomic<bool> unblocked{false};
    TargetThread target([&](const std::atomic<bool>& stop) {
        blockEverySignal(true);
        blocked = true;
        spinUntil(unblock);
        blockEverySignal(false);
        unblocked = true;
        spinUntil(stop);
    });
    ASSERT_TRUE(eventually([&] { return blocked.load(); }));
    EXPECT_EQ(visit(target.id()), VisitResult::NotAnswering);
    unblock = true;
    ASSERT_TRUE(eventually([&] { return unblocked.load(); }));
    EXPECT_EQ(visits, 0);
    EXPECT_EQ(visit(target.id()), VisitResult::Visited);
    EXPECT_EQ(visits, 1);
}

// It runs until its capturer naps, and then sleeps for good.
TEST(ThreadVisit, AThreadThatBlocksTheSignalIsLookedAtOnceMoreWhenItIsGivenUp) {
    const auto self = static_cast<unsigned int>(gettid());
    std::atomic<bool> begin{false};
    std::latch end{1};
    TargetThread target([&](const auto&) {
        blockEverySignal(true);
        spinUntil(begin);
        const unsigned long before = kernelViewOf(self).switches;
        while (kernelViewOf(self).switches == before) {
        }
        end.wait();
        blockEverySignal(false);
    });
    begin = true;
    EXPECT_EQ(visit(target.id(), std::chrono::minutes(1)), VisitResult::Visited);
    end.count_down();
}

VisitorAnswer fillRoom(platform::VisitRoom& room, unsigned long long frame) {
    std::fill_n(room.frames, room.capacity, frame);
    room.frameCount = room.capacity;
    return VisitorAnswer::Enough;
}

// The capturer of the first target has given up, and its slot must not be another's yet.
TEST(ThreadVisit, AHandlerThatOutlastsItsCapturerWritesToNobodyElse) {
    static std::atomic<bool> hasBegun;
    static std::atomic<bool> goOn;
    static std::atomic<bool> isOver;
    hasBegun = goOn = isOver = false;
    TargetThread slow(spinUntil);
    TargetThread other(spinUntil);
    std::array<unsigned long long, 64> frames{};
    const auto visitFor = [&](unsigned int id, auto visitor, std::chrono::milliseconds time) {
        return platform::visitThreadContext(
            {id, true, visitor, std::chrono::steady_clock::now() + time}, frames);
    };
    const auto writeLate = [](const ThreadContext&, platform::VisitRoom& room) noexcept {
        hasBegun = true;
        spinUntil(goOn);
        const auto answer = fillRoom(room, 1);
        isOver = true;
        return answer;
    };
    while (!hasBegun) {
        EXPECT_EQ(visitFor(slow.id(), writeLate, std::chrono::milliseconds(20)).result,
                  VisitResult::NotAnswering);
    }
    const auto writeMeanwhile = [](const ThreadContext&, platform::VisitRoom& room) noexcept {
        const auto answer = fillRoom(room, 2);
        goOn = true;
        spinUntil(isOver);
        // Longer than anything else may run with the signal blocked.
        const auto used = [] {
            timespec time{};
            clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
            return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
        };
        for (const auto before = used(); used() - before < std::chrono::milliseconds(60);) {
        }
        return answer;
    };
    EXPECT_EQ(visitFor(other.id(), writeMeanwhile, std::chrono::minutes(1)).frameCount,
              frames.size());
    EXPECT_EQ(frames.back(), 2U);
    goOn = true;
}

// A caller whose own caller can be found by rbx alone, which nobody below it saves. The innermost
// function calls `poll` without a descriptor, until the time in rdx is over.
asm(".pushsection .text\n"
    "pollAlone:\n\t"
    ".cfi_startproc\n\t"
    "movl $7, %eax\n\t"
    "xorl %edi, %edi\n\t"
    "xorl %esi, %esi\n\t"
    "syscall\n\t"
    "ret\n\t"
    ".cfi_endproc\n"
    ".globl pollBehindARegister\n"
    "pollBehindARegister:\n\t"
    ".cfi_startproc\n\t"
    "pushq %rbx\n\t"
    ".cfi_def_cfa_offset 16\n\t"
    ".cfi_offset rbx, -16\n\t"
    "movq %rsp, %rbx\n\t"
    ".cfi_def_cfa_register rbx\n\t"
    "andq $-64, %rsp\n\t"
    "movl $10, %edx\n\t"
    "call pollAlone\n\t"
    "movq %rbx, %rsp\n\t"
    ".cfi_def_cfa_register rsp\n\t"
    "popq %rbx\n\t"
    ".cfi_def_cfa_offset 8\n\t"
    "ret\n\t"
    ".cfi_endproc\n\t"
    ".popsection");
extern "C" void pollBehindARegister();

TEST(ThreadVisit, WhatWasFoundOfAThreadAtRestStandsWhereItTakesNoSignal) {
    std::atomic<bool> isBlocked{false};
    TargetThread target([&](const std::atomic<bool>& stop) {
        blockEverySignal(true);
        isBlocked = true;
        while (!stop) {
            pollBehindARegister();
        }
        blockEverySignal(false);
    });
    ASSERT_TRUE(eventually([&] { return isBlocked.load(); }));
    constexpr unsigned long long untouched = 0xDEAD;
    std::array<unsigned long long, 4> frames{};
    ASSERT_TRUE(eventually([&] {
        frames.fill(untouched);
        return getStackTrace(target.id(), frames.data(), frames.size(), true) == 1;
    }));
    const auto begin = reinterpret_cast<unsigned long long>(&pollBehindARegister);
    EXPECT_TRUE(begin < frames[0] && frames[0] < begin + 32);
    EXPECT_EQ(frames[1], untouched);
}

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

std::atomic<int> naps{0};

// Two call paths to the same wait.
[[gnu::noinline]] void napOnOddTurns() {
    poll(nullptr, 0, 1);
    ++naps;
}
[[gnu::noinline]] void napOnEvenTurns() {
    poll(nullptr, 0, 1);
    ++naps;
    asm volatile("");
}

TEST(ASessionOfNaps, SeesEveryWakeUp) {
    if (underAddressSanitizer) {
        GTEST_SKIP() << framePointersAreKept;
    }
    TargetThread target([](const std::atomic<bool>& stop) {
        while (!stop) {
            ((naps & 1) == 0 ? napOnEvenTurns : napOnOddTurns)();
        }
    });
    CaptureSession session(64, std::chrono::steady_clock::time_point::max(), 1);
    int told = 0;
    while (naps <= 500) {
        const int before = naps;
        const std::size_t count = session.capture(target.id());
        if (count == 0 || naps != before) {
            continue;  // it woke up meanwhile
        }
        const auto isIn = [&](void (*function)()) {
            const auto begin = reinterpret_cast<unsigned long long>(function);
            const auto frames = session.frames().begin();
            return std::any_of(frames, frames + static_cast<std::ptrdiff_t>(count),
                               [&](auto frame) { return frame > begin && frame < begin + 64; });
        };
        // Between two turns it is in neither.
        if (isIn(napOnEvenTurns) != isIn(napOnOddTurns)) {
            ASSERT_EQ(isIn(napOnEvenTurns), (before & 1) == 0) << "after " << before << " naps";
            ++told;
        }
    }
    EXPECT_GT(told, 0);
}

}  // namespace
}  // namespace ThreadUtilities
