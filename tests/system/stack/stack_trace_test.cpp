// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/StackTrace.h>
#include <execinfo.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <ucontext.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <ctime>
#include <vector>

#include "support/sanitizers.h"
#include "support/target_thread.h"

namespace ThreadUtilities {
namespace {

// The spot at which a target is captured: its callers as the C library sees them there, and how it
// stays there.
struct Spot {
    std::array<void*, 400> callers{};
    int callerCount = 0;
    std::atomic<bool> reached{false};
    std::atomic<bool> stop{false};
    bool isInCoroutine = false;
};

// What the C library sees begins at the spot, or in a sanitizer's wrapper of `backtrace`; only what
// lies behind the return to the spot's caller is kept.
[[gnu::always_inline]] inline void reach(Spot& spot) {
    auto* const begin = spot.callers.data();
    auto* const end = begin + backtrace(begin, static_cast<int>(spot.callers.size()));
    auto* const first = std::find(begin, end, __builtin_return_address(0));
    // The C library has a coroutine return to a place that no call lies before.
    spot.callerCount =
        static_cast<int>(std::copy(first, end, begin) - begin) - (spot.isInCoroutine ? 1 : 0);
    spot.reached = true;
}

constexpr unsigned long long untouched = 0xDEAD;

using Frames = std::vector<unsigned long long>;

Frames capture(unsigned int threadId, bool suspend = true) {
    Frames frames(1000, untouched);
    const auto count = getStackTrace(threadId, frames.data(), frames.size(), suspend);
    EXPECT_EQ(std::count(frames.begin(), frames.end(), untouched), frames.size() - count);
    frames.resize(count);
    return frames;
}

// The spot's own frame goes on; behind it both must agree to the end.
void expectCallersOf(const Spot& spot, const Frames& frames) {
    const auto count = static_cast<std::size_t>(spot.callerCount);
    ASSERT_GT(count, 0U);
    ASSERT_GE(frames.size(), count);
    for (std::size_t i = 0; i < count; ++i) {
        ASSERT_EQ(frames[frames.size() - count + i],
                  reinterpret_cast<unsigned long long>(spot.callers[i]))
            << "caller " << i;
    }
}

[[gnu::noinline]] void blockHere(Spot& spot) {
    reach(spot);
    blockUntil(spot.stop);
}

[[gnu::noinline]] void blockWithoutSignals(Spot& spot) {
    std::uint64_t everything = ~std::uint64_t{0};
    std::uint64_t before = 0;
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &everything, &before, sizeof(everything));
    reach(spot);
    blockUntil(spot.stop);
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &before, nullptr, sizeof(before));
}

// The fork child runs on the same stack meanwhile.
[[gnu::noinline]] void waitInVfork(Spot& spot) {
    reach(spot);
    const pid_t child = vfork();
    if (child == 0) {
        blockUntil(spot.stop);
        _exit(0);
    }
    waitpid(child, nullptr, 0);
}

[[gnu::noinline]] void spinHere(Spot& spot) {
    reach(spot);
    spinUntil(spot.stop);
}

[[gnu::noinline]] void askForTheTime(Spot& spot) {
    reach(spot);
    while (!spot.stop) {
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
    }
}

thread_local Spot* spotOfHandler = nullptr;

void spinInHandler(int) {
    reach(*spotOfHandler);
    spinUntil(spotOfHandler->stop);
}

void raiseInto(Spot& spot, int flags) {
    spotOfHandler = &spot;
    struct sigaction action{};
    action.sa_handler = spinInHandler;
    action.sa_flags = flags;
    sigaction(SIGUSR2, &action, nullptr);
    raise(SIGUSR2);
}

[[gnu::noinline]] void handleSignal(Spot& spot) {
    raiseInto(spot, 0);
}

[[gnu::noinline]] void handleSignalOnAlternateStack(Spot& spot) {
    std::vector<char> memory(64 << 10);
    stack_t stack{memory.data(), 0, memory.size()};
    sigaltstack(&stack, nullptr);
    raiseInto(spot, SA_ONSTACK);
    stack.ss_flags = SS_DISABLE;
    sigaltstack(&stack, nullptr);
}

ucontext_t coroutineReturn;

template <void (*Stay)(Spot&)>
[[gnu::noinline]] void inACoroutine(Spot& spot) {
    std::vector<char> memory(64 << 10);
    ucontext_t coroutine;
    getcontext(&coroutine);
    coroutine.uc_stack.ss_sp = memory.data();
    coroutine.uc_stack.ss_size = memory.size();
    coroutine.uc_link = &coroutineReturn;
    spotOfHandler = &spot;
    spot.isInCoroutine = true;
    const auto body = [] {
        Stay(*spotOfHandler);
        asm volatile("");
    };
    makecontext(&coroutine, body, 0);
    swapcontext(&coroutineReturn, &coroutine);
}

[[gnu::noinline]] void descend(Spot& spot, void (*stay)(Spot&), int depth) {
    if (depth == 0) {
        stay(spot);
    } else {
        descend(spot, stay, depth - 1);
    }
    asm volatile("");
}

struct Scenario {
    const char* name;
    void (*stay)(Spot&);
};

class CapturedAt : public testing::TestWithParam<Scenario> {};

TEST_P(CapturedAt, TheFramesAreThoseThatTheThreadItselfSees) {
    const bool isOutOfReach =
        GetParam().stay == blockWithoutSignals || GetParam().stay == waitInVfork;
    if (underAddressSanitizer && isOutOfReach) {
        GTEST_SKIP() << framePointersAreKept;
    }
    Spot spot;
    TargetThread target([&](const auto&) { descend(spot, GetParam().stay, 300); });
    ASSERT_TRUE(eventually([&] { return spot.reached.load(); }));
    for (int round = 0; round < 200 && !HasFatalFailure(); ++round) {
        expectCallersOf(spot, capture(target.id(), round % 10 != 0));
    }
    unsigned long long first[2] = {untouched, untouched};
    EXPECT_EQ(getStackTrace(target.id(), first, 1, true), 1U);
    EXPECT_EQ(first[1], untouched);
    spot.stop = true;
}

INSTANTIATE_TEST_SUITE_P(
    Scenarios, CapturedAt,
    testing::Values(Scenario{"Blocked", blockHere},
                    Scenario{"BlockedWithoutSignals", blockWithoutSignals},
                    Scenario{"InVfork", waitInVfork}, Scenario{"Spinning", spinHere},
                    Scenario{"InTheVdso", askForTheTime},
                    Scenario{"InASignalHandler", handleSignal},
                    Scenario{"OnAnAlternateStack", handleSignalOnAlternateStack},
                    Scenario{"SpinningInACoroutine", inACoroutine<spinHere>},
                    Scenario{"BlockedInACoroutine", inACoroutine<blockHere>}),
    [](const auto& scenario) { return scenario.param.name; });

TEST(StackTraceOfSelf, BeginsInTheFunctionItselfAndGoesOnWithItsCallers) {
    if (underAddressSanitizer) {
        GTEST_SKIP() << "AddressSanitizer has a `backtrace` of its own";
    }
    std::array<void*, 64> callers{};
    const int callerCount = backtrace(callers.data(), static_cast<int>(callers.size()));
    const Frames frames = capture(static_cast<unsigned int>(gettid()));
    using RawCapture =
        unsigned long long (*)(const unsigned int&, unsigned long long*, unsigned long long, bool);
    const auto inside =
        reinterpret_cast<unsigned long long>(static_cast<RawCapture>(&getStackTrace));
    ASSERT_GT(frames.size(), 3U);
    EXPECT_GT(frames[0], inside);
    EXPECT_LT(frames[0], inside + 4096);
    // getStackTrace, capture and this function's own frame come before the common callers.
    const auto firstCaller = reinterpret_cast<unsigned long long>(callers[1]);
    const auto common = std::find(frames.begin(), frames.end(), firstCaller);
    ASSERT_NE(common, frames.end());
    EXPECT_EQ(frames.end() - common, callerCount - 1);

    const auto self = static_cast<unsigned int>(gettid());
    unsigned long long few[3] = {untouched, untouched, untouched};
    EXPECT_EQ(getStackTrace(self, few, 0x1'0000'0002, true), 2U) << "the limit has 32 bits";
    EXPECT_EQ(few[2], untouched);
}

}  // namespace
}  // namespace ThreadUtilities
