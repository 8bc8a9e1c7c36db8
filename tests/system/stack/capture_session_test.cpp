// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "stack/capture_session.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>

#include "support/sanitizers.h"
#include "support/target_thread.h"

namespace ThreadUtilities {
namespace {

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
