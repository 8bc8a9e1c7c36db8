// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Steps through code one instruction at a time, and walks the stack from each. What the walk must
// find is known from watching the calls and returns on the way.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <ucontext.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/code_modules.h"
#include "platform/thread_stacks.h"
#include "support/sanitizers.h"
#include "unwind/call_site.h"
#include "unwind/frame_pointer_recovery.h"
#include "unwind/frame_walk.h"
#include "unwind/own_space.h"
#include "unwind/stepped_code.h"

namespace ThreadUtilities {
namespace {

constexpr std::size_t maxFrames = 256;
constexpr long trapFlag = 0x100;

platform::ThreadContext contextOf(const ucontext_t& machine, platform::ReadableRange stack) {
    static constexpr int places[platform::RegisterCount] = {
        REG_RAX, REG_RDX, REG_RCX, REG_RBX, REG_RSI, REG_RDI, REG_RBP, REG_RSP, REG_R8,
        REG_R9,  REG_R10, REG_R11, REG_R12, REG_R13, REG_R14, REG_R15, REG_RIP};
    platform::ThreadContext context;
    for (std::size_t number = 0; number < platform::RegisterCount; ++number) {
        context.registers[number] =
            static_cast<std::uint64_t>(machine.uc_mcontext.gregs[places[number]]);
    }
    context.stack = stack;
    return context;
}

/// The return addresses on the stack, kept by looking at the effect of each instruction.
class CallStack {
 public:
    void start(const platform::ThreadContext& context) {
        calls = 0;
        last = context.registers;
        outer = walkThread(context, outerFrames, maxFrames).frameCount;
    }

    /// Takes in the instruction that led to these registers.
    void follow(const platform::Registers& registers) {
        const std::uint64_t stackPointer = registers[platform::Rsp];
        while (calls > 0 && slots[calls - 1] < stackPointer) {
            --calls;
        }
        if (stackPointer == last[platform::Rsp] - 8 && calls < maxFrames) {
            std::uint64_t pushed = 0;
            std::memcpy(&pushed, reinterpret_cast<const void*>(stackPointer), sizeof(pushed));
            // The longest call has 9 bytes; what `push` leaves is not an address right behind it.
            const std::uint64_t length = pushed - last[platform::Rip];
            if (length >= 2 && length <= 9 && registers[platform::Rip] != pushed) {
                slots[calls] = stackPointer;
                returnAddresses[calls] = pushed;
                ++calls;
            }
        }
        last = registers;
    }

    std::size_t frames(unsigned long long* out) const {
        std::reverse_copy(returnAddresses, returnAddresses + calls, out);
        const std::size_t taken = std::min(outer, maxFrames - calls);
        std::copy_n(outerFrames, taken, out + calls);
        return calls + taken;
    }

 private:
    platform::Registers last{};
    std::size_t calls = 0;
    std::uint64_t slots[maxFrames];
    unsigned long long returnAddresses[maxFrames];
    std::size_t outer = 0;
    unsigned long long outerFrames[maxFrames];
};

/// A walk that did not find the callers.
struct WrongWalk {
    std::uint64_t address;
    std::size_t got;
    std::size_t expected;
};

/// What the handler works on; one test at a time.
struct Stepping {
    bool isActive = false;
    platform::ReadableRange stack;
    CallStack expected;
    std::size_t instructions = 0;
    std::size_t deepest = 0;
    std::size_t wrongCount = 0;
    WrongWalk wrong[8192];
    bool looksForFramePointers = false;
    std::size_t framePointers = 0;
    std::size_t wrongFramePointers = 0;
} stepping;

[[gnu::noinline]] void stopStepping() {
    asm volatile("");
}

void checkWalk(const platform::ThreadContext& context) {
    unsigned long long got[maxFrames];
    unsigned long long expected[maxFrames];
    const std::size_t gotCount = walkThread(context, got, maxFrames).frameCount;
    const std::size_t expectedCount = stepping.expected.frames(expected);
    ++stepping.instructions;
    stepping.deepest = std::max(stepping.deepest, expectedCount);
    if (!std::equal(got, got + gotCount, expected, expected + expectedCount) &&
        stepping.wrongCount < std::size(stepping.wrong)) {
        stepping.wrong[stepping.wrongCount++] = {context.registers[platform::Rip], gotCount,
                                                 expectedCount};
    }
}

/// What is found without knowing the frame pointer must be the true one, wherever it is found: here
/// for functions that a call has just returned to.
void checkFramePointer(const platform::ThreadContext& context) {
    const std::uint64_t address = context.registers[platform::Rip] - 1;
    if (cfi::callSiteAt(cfi::ownSpace, address + 1) != cfi::CallSite::Behind) {
        return;
    }
    platform::CodeModule module;
    cfi::TableCopies copies;
    StackWords words(cfi::ownSpace, context.stack);
    std::uint64_t found = 0;
    if (platform::findCodeModule(address, module) &&
        cfi::recoverFramePointer(module, address, context.registers[platform::Rsp],
                                 {cfi::ownSpace, &copies}, words, found)) {
        ++stepping.framePointers;
        stepping.wrongFramePointers += found != context.registers[platform::Rbp] ? 1 : 0;
    }
}

/// Context: signal handler, after every instruction.
void onTrap(int, siginfo_t*, void* machineContext) {
    auto& machine = *static_cast<ucontext_t*>(machineContext);
    const platform::ThreadContext context = contextOf(machine, stepping.stack);
    if (!stepping.isActive) {
        stepping.isActive = true;
        stepping.expected.start(context);
        machine.uc_mcontext.gregs[REG_EFL] |= trapFlag;
        return;
    }
    if (context.registers[platform::Rip] == reinterpret_cast<std::uint64_t>(&stopStepping)) {
        stepping.isActive = false;
        machine.uc_mcontext.gregs[REG_EFL] &= ~trapFlag;
        return;
    }
    stepping.expected.follow(context.registers);
    checkWalk(context);
    if (stepping.looksForFramePointers) {
        checkFramePointer(context);
    }
}

std::string placeOf(std::uint64_t address) {
    Dl_info info{};
    dladdr(reinterpret_cast<void*>(address), &info);
    char text[512];
    std::snprintf(text, sizeof(text), "%s+0x%" PRIx64 " (%s)", info.dli_fname,
                  address - reinterpret_cast<std::uint64_t>(info.dli_fbase),
                  info.dli_sname == nullptr ? "?" : info.dli_sname);
    return text;
}

/// A place where the tables are wrong, for every unwinder alike: a function that aligns its stack
/// restores rbp and ends in `lea -8(%r10),%rsp` and `ret`, with no or few instructions between.
/// From the first to the last of these GCC's tables say still that the caller's rbp is where rbp
/// points to.
bool isInEndOfRealignedFunction(const WrongWalk& wrong) {
    static constexpr std::string_view load = "\x49\x8D\x62\xF8";
    static constexpr std::size_t reach = 12;
    const auto* const code = reinterpret_cast<const char*>(wrong.address);
    // Of the loads up to here the last, whose instruction may be the one that is stepped on.
    const std::string_view before(code - reach, reach + load.size());
    const std::size_t found = before.rfind(load);
    return found != before.npos &&
           std::string_view(code, reach).find('\xC3') != std::string_view::npos;
}

class SingleStep : public testing::Test {
 protected:
    void SetUp() override {
        if (underAddressSanitizer || underThreadSanitizer) {
            GTEST_SKIP() << "needs code that is not instrumented";
        }
        prepareFrameWalks();
        static char alternateStack[64 << 10];
        const stack_t alternate{alternateStack, 0, sizeof(alternateStack)};
        ASSERT_EQ(sigaltstack(&alternate, nullptr), 0);
        struct sigaction action{};
        action.sa_sigaction = onTrap;
        action.sa_flags = SA_SIGINFO | SA_ONSTACK;
        ASSERT_EQ(sigaction(SIGTRAP, &action, &previousAction), 0);
        stepping = {};
    }

    void TearDown() override { sigaction(SIGTRAP, &previousAction, nullptr); }

    /// Steps through `body`; every walk on the way must find the callers.
    template <class Body>
    [[gnu::noinline]] void stepThrough(Body&& body, std::size_t fewest) {
        stepping.stack = platform::currentStackRange();
        // Inner frames are not there yet.
        stepping.stack.begin -= 64 << 10;
        asm volatile("int3" : : : "memory");
        body();
        stopStepping();
        EXPECT_FALSE(stepping.isActive);
        EXPECT_GE(stepping.instructions, fewest);
        std::printf("%zu instructions, up to %zu frames, %zu at known exceptions\n",
                    stepping.instructions, stepping.deepest, stepping.wrongCount);
        std::size_t unexplained = 0;
        for (std::size_t index = 0; index < stepping.wrongCount; ++index) {
            const WrongWalk& wrong = stepping.wrong[index];
            if (!isInEndOfRealignedFunction(wrong) && ++unexplained < 20) {
                ADD_FAILURE() << placeOf(wrong.address) << ": " << wrong.got << " frames for "
                              << wrong.expected;
            }
        }
        EXPECT_EQ(unexplained, 0u);
    }

 private:
    struct sigaction previousAction{};
};

void use(int value) {
    asm volatile("" : : "r"(value));
}

#define STEP_THROUGH_LEVEL(level)                    \
    TEST_F(SingleStep, ThroughCodeOfLevel_##level) { \
        stepThrough(                                 \
            [] {                                     \
                namespace code = stepped::level;     \
                use(code::realigned(9));             \
                use(code::manyRegisters(3));         \
                use(code::recursion(6));             \
                use(code::containers(5));            \
                use(code::callsThroughC(4));         \
            },                                       \
            5000);                                   \
    }
STEP_THROUGH_LEVEL(o0)
STEP_THROUGH_LEVEL(o1)
STEP_THROUGH_LEVEL(o2)
STEP_THROUGH_LEVEL(o3)

TEST_F(SingleStep, FramePointersThatAreFoundAreTrue) {
    stepping.looksForFramePointers = true;
    stepThrough(
        [] {
            use(stepped::f0::realigned(9) + stepped::f2::realigned(9));
            use(stepped::f0::variableSize(7) + stepped::f2::variableSize(7));
            use(stepped::f0::manyRegisters(3) + stepped::f2::manyRegisters(3));
            use(stepped::f0::recursion(6) + stepped::f2::recursion(6));
            use(stepped::f0::containers(3) + stepped::f2::containers(3));
            use(stepped::f0::callsThroughC(4) + stepped::f2::callsThroughC(4));
            use(stepped::f0::recursion(9) + stepped::f2::recursion(11));
        },
        10'000);
    EXPECT_GE(stepping.framePointers, 500U);
    EXPECT_EQ(stepping.wrongFramePointers, 0U);
    std::printf("%zu frame pointers\n", stepping.framePointers);
}

// The C library multiplies the digits in assembly whose tables leave out what it pushes.
TEST_F(SingleStep, ThroughNumbersThatTakeManyDigits) {
    stepThrough(
        [] {
            char text[40];
            use(std::snprintf(text, sizeof(text), "%.9g", 1e-100));
            use(std::strtod("1.234567890123456789e200", nullptr) > 1);
        },
        3000);
}

TEST_F(SingleStep, ThroughTheBinderOfLazyCalls) {
    void* const library = dlopen(LAZILY_BOUND_LIBRARY, RTLD_LAZY);
    ASSERT_NE(library, nullptr) << dlerror();
    const auto call = reinterpret_cast<int (*)(const char*)>(dlsym(library, "callLazilyBound"));
    ASSERT_NE(call, nullptr);
    stepThrough([call] { use(call("12abc")); }, 1000);
    dlclose(library);
}

}  // namespace
}  // namespace ThreadUtilities
