// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/StackTrace.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <csignal>

#include "support/sanitizers.h"
#include "support/target_thread.h"

namespace ThreadUtilities {
namespace {

// The target's alternate stack, which shows how far down it was used.
constexpr char unused = 0x5A;
std::array<char, 64 << 10> handlerStack;

std::size_t used() {
    return static_cast<std::size_t>(handlerStack.end() -
                                    std::find_if(handlerStack.begin(), handlerStack.end(),
                                                 [](char byte) { return byte != unused; }));
}

std::atomic<unsigned long> turns{0};

[[gnu::noinline]] void descend(int depth, const std::atomic<bool>& stop) {
    if (depth == 0) {
        while (!stop) {
            ++turns;
        }
    } else {
        descend(depth - 1, stop);
    }
    asm volatile("");
}

// A capture has its answer while the handler is still on its way back.
bool isOutOfTheHandler() {
    const unsigned long before = turns;
    return eventually([&] { return turns > before + 1; });
}

/// A thread that turns at a depth of 30 calls, with an alternate stack of `size` bytes.
auto turningOn(char* begin, std::size_t size) {
    return [=](const std::atomic<bool>& stop) {
        stack_t stack{begin, 0, size};
        sigaltstack(&stack, nullptr);
        descend(30, stop);
        stack.ss_flags = SS_DISABLE;
        sigaltstack(&stack, nullptr);
    };
}

/// What the kernel stores for any handler of this machine; 0 when none ran. It may be far less than
/// the system's minimum of a signal stack, which counts registers that no thread here uses.
std::size_t usedByBareHandler(TargetThread& target) {
    static std::atomic<bool> called{false};
    called = false;
    struct sigaction action{};
    action.sa_handler = [](int) { called = true; };
    action.sa_flags = SA_ONSTACK;
    sigaction(SIGUSR1, &action, nullptr);
    pthread_kill(target.handle(), SIGUSR1);
    return eventually([] { return called.load(); }) && isOutOfTheHandler() ? used() : 0;
}

TEST(TheHandler, NeedsLittleOfTheStackOfItsThreadAndLeavesOneAloneThatIsTooSmall) {
    if (underAddressSanitizer) {
        GTEST_SKIP() << "instrumented code needs more stack";
    }
    unsigned long long frames[100];
    std::size_t bare = 0;
    handlerStack.fill(unused);
    {
        TargetThread target(turningOn(handlerStack.data(), handlerStack.size()));
        ASSERT_TRUE(eventually([] { return turns > 0; }));
        bare = usedByBareHandler(target);
        ASSERT_GT(bare, 0U);
        // The first capture finds no rule in the cache and runs the longest way.
        for (int round = 0; round < 10; ++round) {
            handlerStack.fill(unused);
            ASSERT_GT(getStackTrace(target.id(), frames, 100, true), 30U);
            ASSERT_TRUE(isOutOfTheHandler());
            EXPECT_GT(used(), bare);
            EXPECT_LT(used(), bare + 4096);
        }
    }
    handlerStack.fill(unused);
    static constexpr std::size_t below = 32 << 10;
    TargetThread target(turningOn(handlerStack.data() + below, bare + 1000));
    ASSERT_TRUE(isOutOfTheHandler());
    for (int round = 0; round < 10; ++round) {
        EXPECT_EQ(getStackTrace(target.id(), frames, 100, true), 0U);
        ASSERT_TRUE(isOutOfTheHandler());
    }
    EXPECT_GT(used(), 0U) << "the handler ran";
    EXPECT_EQ(std::count(handlerStack.begin(), handlerStack.begin() + below, unused), below);
}

}  // namespace
}  // namespace ThreadUtilities
