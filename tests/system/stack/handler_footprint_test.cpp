#include <ThreadUtilities/StackTrace.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <vector>

#include "system/stack/target_thread.h"

namespace ThreadUtilities {
namespace {

using TheHandler = WithPromptSignals;

// An alternate stack that shows how far down it was used.
class MeasuredStack {
 public:
    MeasuredStack() : bytes_(64 << 10, unused) {
        stack_t stack{bytes_.data(), 0, bytes_.size()};
        EXPECT_EQ(sigaltstack(&stack, nullptr), 0);
    }
    ~MeasuredStack() {
        stack_t stack{};
        stack.ss_flags = SS_DISABLE;
        sigaltstack(&stack, nullptr);
    }
    MeasuredStack(const MeasuredStack&) = delete;
    MeasuredStack& operator=(const MeasuredStack&) = delete;

    [[nodiscard]] std::size_t used() const {
        return static_cast<std::size_t>(
            bytes_.end() -
            std::find_if(bytes_.begin(), bytes_.end(), [](char byte) { return byte != unused; }));
    }
    void clear() { std::fill(bytes_.begin(), bytes_.end(), unused); }

 private:
    static constexpr char unused = 0x5A;
    std::vector<char> bytes_;
};

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

TEST_F(TheHandler, NeedsLittleOfTheStackOfItsThread) {
    std::atomic<MeasuredStack*> measured{nullptr};
    TargetThread target([&](const std::atomic<bool>& stop) {
        MeasuredStack stack;
        measured = &stack;
        descend(30, stop);
    });
    ASSERT_TRUE(eventually([&] { return measured != nullptr; }));
    // What the kernel stores for any handler.
    static std::atomic<bool> called{false};
    struct sigaction action {};
    action.sa_handler = [](int) { called = true; };
    action.sa_flags = SA_ONSTACK;
    sigaction(SIGUSR1, &action, nullptr);
    pthread_kill(target.handle(), SIGUSR1);
    ASSERT_TRUE(eventually([] { return called.load(); }) && isOutOfTheHandler());
    const std::size_t bare = measured.load()->used();
    ASSERT_GT(bare, 0U);

    // The first capture finds no rule in the cache and runs the longest way.
    std::size_t most = 0;
    for (int round = 0; round < 10; ++round) {
        measured.load()->clear();
        unsigned long long frames[100];
        ASSERT_GT(getStackTrace(target.id(), frames, 100, true), 30U);
        ASSERT_TRUE(isOutOfTheHandler());
        ASSERT_GT(measured.load()->used(), bare);
        most = std::max(most, measured.load()->used() - bare);
    }
    EXPECT_LT(most, 4096U);
    RecordProperty("bytes", static_cast<int>(most));
}

}  // namespace
}  // namespace ThreadUtilities
