// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <thread>
#include <vector>

#include "foundation/random.h"
#include "support/fork_child.h"
#include "support/sanitizers.h"

namespace vesko {
namespace {

using Numbers = std::array<int, 8>;

Numbers drawNumbers() {
    Numbers numbers;
    for (int& number : numbers) {
        number = randomIntHook(0, 999999999, false);
    }
    return numbers;
}

/// What a fork child draws.
Numbers numbersOfAChild() {
    static auto* const shared = static_cast<Numbers*>(
        mmap(nullptr, sizeof(Numbers), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    EXPECT_EQ(ThreadUtilities::runInForkChild([] { *shared = drawNumbers(); }), 0);
    return *shared;
}

TEST(RandomAcrossFork, TheChildDrawsAtOnceAndOtherNumbers) {
    if (ThreadUtilities::underAddressSanitizer) {
        GTEST_SKIP() << ThreadUtilities::copiesMayHang;
    }
    {
        std::vector<std::jthread> drawers;
        for (int count = 0; count < 3; ++count) {
            drawers.emplace_back([](const std::stop_token& stop) {
                while (!stop.stop_requested()) {
                    randomInt(0, 1000, true);
                }
            });
        }
        for (int forks = 0; forks < 30; ++forks) {
            numbersOfAChild();
        }
    }
    // Nobody draws between these three, so that only a seed of their own keeps them apart.
    const Numbers first = numbersOfAChild();
    const Numbers second = numbersOfAChild();
    const Numbers own = drawNumbers();
    EXPECT_NE(first, second);
    EXPECT_NE(first, own);
}

// Filled with one byte, so that it shows how far down it was used.
constexpr char unused = 0x5A;
std::array<char, 128 << 10> threadStack;

void* drawAndMeasure(void* used) {
    char* const frame = static_cast<char*>(__builtin_frame_address(0));
    std::fill(threadStack.data(), frame - 512, unused);
    randomInt(0, 1, false);
    const auto* const lowest = std::find_if(threadStack.begin(), threadStack.end(),
                                            [](char byte) { return byte != unused; });
    *static_cast<std::ptrdiff_t*>(used) = frame - lowest;
    return nullptr;
}

TEST(Random, SeedsOnLittleStack) {
    if (ThreadUtilities::underAddressSanitizer || ThreadUtilities::underThreadSanitizer) {
        GTEST_SKIP() << "instrumented code needs more stack";
    }
    EXPECT_TRUE(ThreadUtilities::runInForkChild([] {
                    pthread_attr_t attributes;
                    pthread_attr_init(&attributes);
                    pthread_attr_setstack(&attributes, threadStack.data(), threadStack.size());
                    pthread_t thread;
                    std::ptrdiff_t used = 0;
                    pthread_create(&thread, &attributes, drawAndMeasure, &used);
                    pthread_join(thread, nullptr);
                    return used > 512 && used < 4096;
                }) == 0);
}

}  // namespace
}  // namespace vesko
