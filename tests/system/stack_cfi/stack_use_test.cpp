// What a walk takes of the stack that it runs on, which in a signal handler is the target's own.

#include <gtest/gtest.h>
#include <ucontext.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "stack/frame_walk.h"

namespace ThreadUtilities {
namespace {

constexpr std::size_t boundOnStackUse = 2560;
constexpr unsigned char paint = 0xA5;

platform::ThreadContext walked;
std::size_t frameCount = 0;
const char* callerFrame = nullptr;

alignas(64) std::array<unsigned char, 64 << 10> paintedStack;

void walkOnPaintedStack() {
    unsigned long long frames[64];
    callerFrame = reinterpret_cast<const char*>(frames);
    frameCount = walkThread(walked, frames, std::size(frames)).frameCount;
}

/// Bytes that the walk of `walked` writes below the frame of its caller.
std::size_t measureStackUse() {
    static ucontext_t outside;
    static ucontext_t inside;
    paintedStack.fill(paint);
    getcontext(&inside);
    inside.uc_stack = {paintedStack.data(), 0, paintedStack.size()};
    inside.uc_link = &outside;
    makecontext(&inside, walkOnPaintedStack, 0);
    swapcontext(&outside, &inside);
    const auto lowest = std::find_if(paintedStack.begin(), paintedStack.end(),
                                     [](unsigned char byte) { return byte != paint; });
    return static_cast<std::size_t>(callerFrame - reinterpret_cast<const char*>(&*lowest));
}

/// Takes the registers in a frame whose row holds expressions.
[[gnu::noinline]] std::size_t measureBelowAlignedFrame(std::size_t size, bool knowsStack) {
    alignas(128) volatile char aligned[256] = {};
    auto* const variable = static_cast<volatile char*>(__builtin_alloca(size));
    variable[0] = aligned[1];
    ucontext_t machine;
    getcontext(&machine);
    const auto* const values = machine.uc_mcontext.gregs;
    walked = {};
    walked.registers[platform::Rip] = static_cast<std::uint64_t>(values[REG_RIP]);
    walked.registers[platform::Rsp] = static_cast<std::uint64_t>(values[REG_RSP]);
    walked.registers[platform::Rbp] = static_cast<std::uint64_t>(values[REG_RBP]);
    walked.registers[platform::Rbx] = static_cast<std::uint64_t>(values[REG_RBX]);
    if (knowsStack) {
        walked.stack = platform::currentStackRange();
    }
    return measureStackUse() + static_cast<std::size_t>(variable[0]);
}

TEST(StackUse, OfAWalkIsBounded) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "needs code that is not instrumented";
#endif
    prepareFrameWalks();
    // First with no rule in the cache, then with all of them, then with every word read through the
    // system.
    const std::size_t uses[] = {measureBelowAlignedFrame(100, true),
                                measureBelowAlignedFrame(100, true),
                                measureBelowAlignedFrame(100, false)};
    for (const std::size_t use : uses) {
        std::printf("%zu bytes\n", use);
        EXPECT_LT(use, boundOnStackUse);
        EXPECT_GT(use, 100u);
    }
    EXPECT_GT(frameCount, 8u);
}

}  // namespace
}  // namespace ThreadUtilities
