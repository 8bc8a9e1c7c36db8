// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <set>

#include "foundation/random.h"

namespace vesko {
namespace {

struct Random : testing::Test {
    decltype(randomIntHook) original = randomIntHook;
    ~Random() override { randomIntHook = original; }
};

TEST_F(Random, DrawsEveryValueOfTheRangeAndNoOther) {
    std::map<int, int> drawn;
    for (int draws = 0; draws < 20000; ++draws) {
        ++drawn[randomIntHook(-1, 8, false)];
    }
    ASSERT_EQ(drawn.size(), 10u);
    EXPECT_EQ(drawn.begin()->first, -1);
    for (const auto& [value, count] : drawn) {
        // Far outside of chance: 2000 is expected, and the standard deviation is 42.
        EXPECT_GT(count, 1500) << value;
    }
}

TEST_F(Random, TheWholeRangeOfIntIsAllowed) {
    const int lowest = std::numeric_limits<int>::min();
    std::set<int> drawn;
    for (int draws = 0; draws < 100; ++draws) {
        drawn.insert(randomInt(lowest, std::numeric_limits<int>::max(), false));
    }
    EXPECT_GT(drawn.size(), 90u);
    randomIntHook = [](int, int, bool) { return 2; };
    // The one range whose every value shows what becomes of the lowest.
    for (int draws = 0; draws < 50; ++draws) {
        const int value = randomInt(lowest, lowest + 1, true);
        EXPECT_TRUE(value == lowest || value == std::numeric_limits<int>::max()) << value;
    }
}

}  // namespace
}  // namespace vesko
