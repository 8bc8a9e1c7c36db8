// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Stacks of which pages cannot be read, and chains of frames that lead there.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <ucontext.h>

#include <cstring>

#include "linux/capture/handler/saved_registers.h"
#include "support/sanitizers.h"
#include "unwind/frame_walk.h"

namespace ThreadUtilities {
namespace {

constexpr std::uint64_t pageSize = platform::memoryPageSize;
constexpr std::size_t maxFrames = 200;

struct Seen {
    std::size_t count = 0;
    unsigned long long frames[maxFrames];
} seen;

[[gnu::noinline]] void walkSelf() {
    seen.count = walkCallingThread(seen.frames, maxFrames);
}

void walkInHandler(int, siginfo_t*, void* machine) {
    const auto& interrupted = *static_cast<const ucontext_t*>(machine);
    platform::ThreadContext context;
    context.registers = platform::savedRegisters(interrupted);
    const std::uint64_t stackPointer = context.registers[platform::Rsp];
    context.stack = {stackPointer - 128, stackPointer + (1 << 20)};
    context.readableStack = platform::pagesOfSignal(interrupted);
    seen.count = walkThread(context, seen.frames, maxFrames).frameCount;
}

[[gnu::noinline]] void interruptSelf() {
    asm volatile("int3" : : : "memory");
}

using Body = void (*)();

/// Calls `body` with the stack pointer at `top` and, as its caller's, the frame pointer `frame`.
[[gnu::noinline]] void onStack(void* top, std::uint64_t frame, Body body) {
    asm volatile(
        "movq %%rsp, %%r12\n\t"
        "movq %%rbp, %%r13\n\t"
        "movq %0, %%rsp\n\t"
        "movq %1, %%rbp\n\t"
        "callq *%2\n\t"
        "movq %%r12, %%rsp\n\t"
        "movq %%r13, %%rbp\n\t"
        :
        : "r"(top), "r"(frame), "r"(body)
        : "rax", "rcx", "rdx", "rsi", "rdi", "r8", "r9", "r10", "r11", "r12", "r13", "memory",
          "cc");
}

/// The return address into a function that calls by a frame of a given size, without a frame
/// pointer: what a damaged stack holds is often a true one of some other time.
template <std::size_t Size>
[[gnu::noinline]] void calls(Body body) {
    char room[Size];
    asm volatile("" : : "r"(room) : "memory");
    body();
    asm volatile("" : : "r"(room) : "memory");
}

unsigned long long returnAddress = 0;
[[gnu::noinline]] void takeReturnAddress() {
    returnAddress = reinterpret_cast<unsigned long long>(__builtin_return_address(0));
}

/// Walks from a stack that lies inside of this thread's, where all words are `fill`, towards a page
/// that cannot be read. `distance` is from that page to the frame pointer, none where it is 0.
void walkTowardsPage(std::uint64_t fill, std::uint64_t distance, Body walk, bool readableFirst) {
    char room[6 * pageSize];
    const auto begin = reinterpret_cast<std::uint64_t>(room) + pageSize - 1;
    char* const first = room + (pageSize - 1 - begin % pageSize);
    char* const guarded = first + 4 * pageSize;
    for (char* word = first; word < guarded + pageSize; word += sizeof(fill)) {
        std::memcpy(word, &fill, sizeof(fill));
    }
    const std::uint64_t frame =
        distance == 0 ? 0 : reinterpret_cast<std::uint64_t>(guarded) + distance - pageSize;
    // The second time by the rules that the first has left.
    for (int round = 0; readableFirst && round < 2; ++round) {
        onStack(guarded - 256, frame, walk);
    }
    ASSERT_EQ(mprotect(guarded, pageSize, PROT_NONE), 0);
    for (int round = 0; round < 3; ++round) {
        seen.count = 0;
        onStack(guarded - 256, frame, walk);
        EXPECT_GT(seen.count, 0u);
        EXPECT_LT(seen.count, maxFrames);
    }
    ASSERT_EQ(mprotect(guarded, pageSize, PROT_READ | PROT_WRITE), 0);
}

/// Hosts lay coroutine stacks with guards inside of a thread's stack, and damage leads anywhere.
TEST(ProtectedStack, IsReadUpToThePage) {
    if (underAddressSanitizer || underThreadSanitizer) {
        GTEST_SKIP() << "needs code that is not instrumented";
    }
    prepareFrameWalks();
    struct sigaction action{};
    struct sigaction previous{};
    action.sa_sigaction = walkInHandler;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGTRAP, &action, &previous);
    calls<40>(takeReturnAddress);
    const unsigned long long small = returnAddress;
    // Before a walk has met any such page.
    walkTowardsPage(small, 0, interruptSelf, true);
    for (const Body walk : {walkSelf, interruptSelf}) {
        calls<3000>(takeReturnAddress);
        for (const unsigned long long address : {small, returnAddress}) {
            // The first page that is met ends the belief in earlier answers.
            walkTowardsPage(address, 0, walk, false);
            walkTowardsPage(address, 0, walk, true);
        }
        // Frame pointers below the page, to its begin and its middle, and to its last word.
        for (const std::uint64_t distance :
             {std::uint64_t{4088}, pageSize, pageSize + 512, 2 * pageSize - 8}) {
            walkTowardsPage(small, distance, walk, true);
        }
    }
    sigaction(SIGTRAP, &previous, nullptr);
}

/// What no stack reaches is taken for a part of the first thread's, as far as 64 MB down.
TEST(ProtectedStack, NeedNotBeThere) {
    if (underAddressSanitizer || underThreadSanitizer) {
        GTEST_SKIP() << "needs code that is not instrumented";
    }
    prepareFrameWalks();
    const auto here = reinterpret_cast<std::uint64_t>(__builtin_frame_address(0));
    for (std::uint64_t below = 1; below <= 70; ++below) {
        platform::ThreadContext context;
        context.registers[platform::Rip] = reinterpret_cast<std::uint64_t>(&takeReturnAddress);
        context.registers[platform::Rsp] = here - (below << 20);
        context.registers[platform::Rbp] = here - (below << 20) + 64;
        context.stack = {here - (64 << 20), here};
        walkThread(context, seen.frames, maxFrames);
    }
}

}  // namespace
}  // namespace ThreadUtilities
