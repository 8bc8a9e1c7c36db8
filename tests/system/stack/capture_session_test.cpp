#include "stack/capture_session.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <vector>

#include "system/stack/target_thread.h"

namespace ThreadUtilities {
namespace {

using ASessionOfNaps = WithPromptSignals;

struct Naps {
    std::atomic<int> count{0};
    std::atomic<bool> stop{false};
};

// Two call paths to the same wait.
[[gnu::noinline]] void napOnOddTurns(Naps& naps) {
    poll(nullptr, 0, 1);
    ++naps.count;
}
[[gnu::noinline]] void napOnEvenTurns(Naps& naps) {
    poll(nullptr, 0, 1);
    ++naps.count;
    asm volatile("");
}

bool isIn(const CaptureSession& session, std::size_t count, void (*function)(Naps&)) {
    const auto begin = reinterpret_cast<unsigned long long>(function);
    const auto end = session.frames().begin() + static_cast<std::ptrdiff_t>(count);
    return std::any_of(session.frames().begin(), end,
                       [&](auto frame) { return frame > begin && frame < begin + 64; });
}

TEST_F(ASessionOfNaps, SeesEveryWakeUp) {
    Naps naps;
    TargetThread target([&](const std::atomic<bool>& stop) {
        while (!stop) {
            ((naps.count & 1) == 0 ? napOnEvenTurns : napOnOddTurns)(naps);
        }
    });
    CaptureSession session(64);
    int told = 0;
    const auto look = [&] {
        const int before = naps.count;
        const std::size_t count = session.capture(target.id());
        if (count == 0 || naps.count != before) {
            return;  // it woke up meanwhile
        }
        const bool even = isIn(session, count, napOnEvenTurns);
        const bool odd = isIn(session, count, napOnOddTurns);
        if (even != odd) {
            // Between two turns it is in neither.
            ASSERT_EQ(even, (before & 1) == 0) << "after " << before << " naps";
            ++told;
        }
    };
    EXPECT_TRUE(eventually([&] {
        look();
        return HasFatalFailure() || naps.count > 500;
    }));
    EXPECT_GT(told, 0);
}

TEST(ASessionOfCaptures, NeverTouchesThreadsThatSleep) {
    constexpr std::size_t threadCount = 200;
    std::atomic<std::size_t> asleep{0};
    std::atomic<bool> wake{false};
    std::vector<std::unique_ptr<TargetThread>> threads;
    for (std::size_t i = 0; i < threadCount; ++i) {
        threads.push_back(std::make_unique<TargetThread>([&](const auto&) {
            ++asleep;
            wake.wait(false);
        }));
    }
    const auto allSleep = [&] {
        return std::all_of(threads.begin(), threads.end(),
                           [](const auto& thread) { return kernelViewOf(thread->id()).sleeps; });
    };
    ASSERT_TRUE(eventually([&] { return asleep == threadCount && allSleep(); }));
    const auto switches = [&] {
        unsigned long sum = 0;
        for (const auto& thread : threads) {
            sum += kernelViewOf(thread->id()).switches;
        }
        return sum;
    };
    const unsigned long before = switches();
    CaptureSession session(64);
    for (int round = 0; round < 100; ++round) {
        for (const auto& thread : threads) {
            ASSERT_GT(session.capture(thread->id()), 2U);
        }
    }
    EXPECT_EQ(switches(), before);
    wake = true;
    wake.notify_all();
}

}  // namespace
}  // namespace ThreadUtilities
