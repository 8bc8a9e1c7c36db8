#include "stack/capture_session.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "support/target_thread.h"

namespace ThreadUtilities {
namespace {

using ASessionOfNaps = WithPromptSignals;

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

TEST_F(ASessionOfNaps, SeesEveryWakeUp) {
    if (underAddressSanitizer) {
        GTEST_SKIP() << framePointersAreKept;
    }
    TargetThread target([](const std::atomic<bool>& stop) {
        while (!stop) {
            ((naps & 1) == 0 ? napOnEvenTurns : napOnOddTurns)();
        }
    });
    CaptureSession session(64);
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

TEST(ASessionOfCaptures, NeverTouchesAThousandThreadsThatSleep) {
    if (underAddressSanitizer) {
        GTEST_SKIP() << framePointersAreKept;
    }
    constexpr std::size_t threadCount = 1000;
    std::atomic<std::size_t> asleep{0};
    std::atomic<bool> wake{false};
    std::vector<std::unique_ptr<TargetThread>> threads;
    for (std::size_t i = 0; i < threadCount; ++i) {
        threads.push_back(std::make_unique<TargetThread>([&](const auto&) {
            ++asleep;
            wake.wait(false);
        }));
    }
    EXPECT_TRUE(eventually([&] { return asleep == threadCount; }));
    for (const auto& thread : threads) {
        EXPECT_TRUE(eventually([&] { return kernelViewOf(thread->id()).sleeps; }));
    }
    const auto switches = [&] {
        unsigned long sum = 0;
        for (const auto& thread : threads) {
            sum += kernelViewOf(thread->id()).switches;
        }
        return sum;
    };
    const unsigned long atFirst = switches();
    CaptureSession session(64);
    for (int round = 0; round < 20 && !HasFailure(); ++round) {
        for (const auto& thread : threads) {
            EXPECT_GT(session.capture(thread->id()), 2U);
        }
    }
    EXPECT_EQ(switches(), atFirst);
    wake = true;
    wake.notify_all();
}

}  // namespace
}  // namespace ThreadUtilities
