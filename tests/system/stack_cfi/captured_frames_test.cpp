// Frames of the library's own walk against those that the C library finds at the same spot.

#include <alloca.h>
#include <execinfo.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <setjmp.h>
#include <signal.h>
#include <ucontext.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "stack/frame_walk.h"

namespace ThreadUtilities {
namespace {

constexpr std::size_t maxFrames = 400;

using Frames = std::vector<unsigned long long>;

/// Both walks' frames from the caller of this function outward.
struct Captured {
    Frames ours;
    Frames theirs;
};

[[gnu::noinline]] Captured capture() {
    Captured captured;
    captured.ours.resize(maxFrames);
    captured.ours.resize(walkCallingThread(captured.ours.data(), maxFrames));
    std::vector<void*> addresses(maxFrames);
    addresses.resize(backtrace(addresses.data(), maxFrames));
    for (void* const address : addresses) {
        captured.theirs.push_back(reinterpret_cast<unsigned long long>(address));
    }
    // The first entries are return addresses in this function.
    if (!captured.ours.empty() && !captured.theirs.empty()) {
        captured.ours.erase(captured.ours.begin());
        captured.theirs.erase(captured.theirs.begin());
    }
    return captured;
}

int escape(int value) {
    asm volatile("" : "+r"(value));
    return value;
}

using Function = void (*)();

[[gnu::noinline]] int descend(int depth, Function body) {
    if (depth == 0) {
        body();
        return 0;
    }
    return escape(descend(depth - 1, body) + 1);
}

/// Where the functions below leave what they captured.
Captured captured;

void expectCaptured(std::size_t fewest) {
    EXPECT_GE(captured.theirs.size(), fewest);
    EXPECT_EQ(captured.ours, captured.theirs);
    captured = {};
}

TEST(CapturedFrames, AreThoseOfTheCLibraryInDeepRecursion) {
    // The second time with rules that the first has left in the cache.
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(descend(200, [] { captured = capture(); }), 200);
        expectCaptured(200);
    }
}

TEST(CapturedFrames, AreThoseOfTheCLibraryBelowItsOwnFunctions) {
    int numbers[] = {3, 1, 2};
    std::qsort(numbers, 3, sizeof(int), [](const void* left, const void* right) {
        captured = capture();
        return *static_cast<const int*>(left) - *static_cast<const int*>(right);
    });
    expectCaptured(8);
    pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, [] { captured = capture(); });
    expectCaptured(8);
}

[[gnu::noinline]] int captureInAlignedFrame(std::size_t size) {
    alignas(128) char aligned[256];
    auto* const memory = static_cast<char*>(alloca(size));
    asm volatile("" : : "r"(aligned), "r"(memory) : "memory");
    captured = capture();
    return aligned[0] + memory[0];
}

TEST(CapturedFrames, AreThoseOfTheCLibraryBelowFramesOfUnusualShape) {
    escape(captureInAlignedFrame(1000));
    expectCaptured(8);
}

struct CapturesWhenDestroyed {
    ~CapturesWhenDestroyed() { captured = capture(); }
};

TEST(CapturedFrames, AreThoseOfTheCLibraryWhileAnExceptionUnwinds) {
    try {
        descend(5, [] {
            const CapturesWhenDestroyed destroyed;
            throw 1;
        });
    } catch (int) {
    }
    expectCaptured(8);
}

/// Captures in a handler for a signal that strikes in the middle of a function.
class InSignalHandler : public testing::TestWithParam<int> {
 protected:
    void SetUp() override {
        const stack_t alternate{alternateStack.data(), 0, alternateStack.size()};
        ASSERT_EQ(sigaltstack(&alternate, &previousStack), 0);
        struct sigaction action {};
        action.sa_handler = [](int) { descend(3, [] { captured = capture(); }); };
        action.sa_flags = GetParam();
        ASSERT_EQ(sigaction(SIGUSR1, &action, &previousAction), 0);
        ASSERT_EQ(sigaction(SIGSEGV, &action, &previousFault), 0);
    }

    void TearDown() override {
        sigaction(SIGUSR1, &previousAction, nullptr);
        sigaction(SIGSEGV, &previousFault, nullptr);
        sigaltstack(&previousStack, nullptr);
    }

    std::vector<char> alternateStack = std::vector<char>(256 << 10);
    stack_t previousStack{};
    struct sigaction previousAction {};
    struct sigaction previousFault {};
};

TEST_P(InSignalHandler, FramesAreThoseOfTheCLibrary) {
    for (int round = 0; round < 2; ++round) {
        descend(5, [] { raise(SIGUSR1); });
        expectCaptured(15);
    }
}

/// A call through a null pointer: the interrupted function is none, and its caller is found by the
/// word that the call left on the stack.
TEST_P(InSignalHandler, CallersOfANullFunctionAreFound) {
    static sigjmp_buf back;
    struct sigaction action {};
    action.sa_flags = GetParam();
    action.sa_handler = [](int) {
        captured = capture();
        siglongjmp(back, 1);
    };
    ASSERT_EQ(sigaction(SIGSEGV, &action, nullptr), 0);
    volatile Function none = nullptr;
    if (sigsetjmp(back, 1) == 0) {
        none();
    }
    // A place in the handler, then the trampoline; the null address ends the walk.
    EXPECT_EQ(captured.ours.size(), 2u);
    EXPECT_TRUE(std::equal(captured.ours.begin(), captured.ours.end(), captured.theirs.begin()));
    captured = {};
}

INSTANTIATE_TEST_SUITE_P(OnStacks, InSignalHandler, testing::Values(0, SA_ONSTACK),
                         [](const auto& tested) {
                             return tested.param == SA_ONSTACK ? "Alternate" : "Own";
                         });

/// A thread that runs on a stack the library knows nothing of.
TEST(CapturedFrames, AreFoundOnACoroutineStack) {
    static ucontext_t outside;
    static ucontext_t inside;
    std::vector<char> stack(256 << 10);
    ASSERT_EQ(getcontext(&inside), 0);
    inside.uc_stack = {stack.data(), 0, stack.size()};
    inside.uc_link = &outside;
    makecontext(
        &inside, [] { descend(20, [] { captured = capture(); }); }, 0);
    ASSERT_EQ(swapcontext(&outside, &inside), 0);
    expectCaptured(20);
}

TEST(CapturedFrames, OfARequestWithLittleRoomAreTheInnermost) {
    descend(5, [] {
        unsigned long long all[64];
        unsigned long long few[4] = {};
        const std::size_t count = walkCallingThread(all, 64);
        EXPECT_EQ(walkCallingThread(few, 3), 3u);
        EXPECT_GT(count, 5u);
        // The first entries are two places of this function.
        EXPECT_EQ(few[1], all[1]);
        EXPECT_EQ(few[2], all[2]);
        EXPECT_EQ(few[3], 0u);
    });
}

}  // namespace
}  // namespace ThreadUtilities
