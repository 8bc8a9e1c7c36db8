// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "unwind/frame_walk.h"

#include <cstddef>
#include <cstdint>
#include <new>
#include <span>

#include "platform/code_modules.h"
#include "platform/thread_stacks.h"
#include "unwind/known_crossings.h"
#include "unwind/known_paths.h"
#include "unwind/own_space.h"
#include "unwind/rule_cache.h"
#include "unwind/scanned_tables.h"
#include "unwind/stack_words.h"
#include "unwind/table_reader.h"
#include "unwind/table_walk.h"
#include "unwind/walk_memory.h"

namespace ThreadUtilities {
namespace {

constinit cfi::RuleCache ruleCache;
constinit cfi::KnownPaths knownPaths;
constinit cfi::KnownCrossings knownCrossings;

/// A walk of a thread of this process.
struct Start : cfi::WalkStart {
    std::span<std::byte> scratch{};
};

cfi::TableWalk walk(const Start& start, cfi::TableCopies* copies, StackWords& words,
                    unsigned long long* frames, std::size_t maxFrames) noexcept {
    const auto memory = [] {
        return cfi::WalkMemory{ruleCache, platform::permanentIdentity(), &knownPaths,
                               &knownCrossings};
    };
    return cfi::walkByTables(start, memory, {cfi::ownSpace, copies}, words, frames, maxFrames);
}

/// Not inlined: the room for copies must not be on the stack of a thread that walks itself.
[[gnu::noinline]] WalkResult walkWithOwnCopies(const Start& start, StackWords& words,
                                               unsigned long long* frames,
                                               std::size_t maxFrames) noexcept {
    cfi::TableCopies copies;
    return walk(start, &copies, words, frames, maxFrames).result();
}

WalkResult walkWithCopies(const Start& start, StackWords& words, unsigned long long* frames,
                          std::size_t maxFrames) noexcept {
    static_assert(sizeof(cfi::TableCopies) <= platform::visitScratchSize);
    if (start.scratch.size() < sizeof(cfi::TableCopies)) {
        return walkWithOwnCopies(start, words, frames, maxFrames);
    }
    auto* const copies = new (start.scratch.data()) cfi::TableCopies;
    return walk(start, copies, words, frames, maxFrames).result();
}

WalkResult walkHeld(const Start& start, StackWords& words, unsigned long long* frames,
                    std::size_t maxFrames) noexcept {
    const cfi::TableWalk held = walk(start, nullptr, words, frames, maxFrames);
    return held.lacksCopies ? walkWithCopies(start, words, frames, maxFrames) : held.result();
}

/// A walk that holds no thread, again after each long search that it needed.
template <class Walking>
WalkResult searching(Walking walkOnce) noexcept {
    constexpr unsigned mostSearches = 32;
    WalkResult result = walkOnce();
    for (unsigned searches = 0;
         result.end == WalkEnd::LongSearch && searches < mostSearches && searchForWalks();
         ++searches) {
        result = walkOnce();
    }
    return result;
}

/// Not inlined: a second set of words must not be on the stack of a thread that walks in a handler.
[[gnu::noinline]] WalkResult walkCopiedStack(const platform::ThreadContext& context,
                                             const Start& start, unsigned long long* frames,
                                             std::size_t maxFrames) noexcept {
    StackWords words(cfi::ownSpace, context.stack, context.stackShift);
    if (context.isStopped) {
        return walkHeld(start, words, frames, maxFrames);
    }
    return searching([&] { return walkWithCopies(start, words, frames, maxFrames); });
}

/// The pages of the stack that a thread's walk of itself uses: of the frame that it starts in, and
/// of the caller's entries where they lie on the stack too, most often right above. Who gives a
/// larger number of entries than there are gets no more than the usual ones believed.
platform::ReadableRange pagesInUse(std::uint64_t stackPointer, std::uint64_t frameTop,
                                   const unsigned long long* frames,
                                   std::size_t maxFrames) noexcept {
    constexpr std::uint64_t inPage = platform::memoryPageSize - 1;
    constexpr std::size_t usualFrames = 512;
    const auto pageAfter = [](std::uint64_t end) { return (end + inPage) & ~inPage; };
    platform::ReadableRange pages{stackPointer & ~inPage, pageAfter(frameTop)};
    const auto entries = reinterpret_cast<std::uint64_t>(frames);
    if (stackPointer <= entries && entries <= pages.end) {
        const std::size_t believed = maxFrames < usualFrames ? maxFrames : usualFrames;
        const std::uint64_t end = pageAfter(entries + believed * sizeof(*frames));
        pages.end = end > pages.end ? end : pages.end;
    }
    return pages;
}

}  // namespace

void prepareFrameWalks() noexcept {
    platform::prepareModuleLookup();
    searchForWalks();
}

bool searchForWalks() noexcept {
    return cfi::scanWanted();
}

WalkResult walkThread(const platform::ThreadContext& context, unsigned long long* frames,
                      std::size_t maxFrames) noexcept {
    Start start{{context.registers, context.knownRegisters}};
    start.stackShift = context.stackShift;
    start.mayCallSystem = context.mayCallSystem;
    start.scratch = context.scratch;
    if (!context.isStopped || context.stackShift != 0) {
        return walkCopiedStack(context, start, frames, maxFrames);
    }
    StackWords words(cfi::ownSpace, context.stack, context.readableStack, context.mayCallSystem);
    return walkHeld(start, words, frames, maxFrames);
}

// Not inlined: the walk starts in this function's frame and its first step leaves it.
[[gnu::noinline]] std::size_t walkCallingThread(unsigned long long* frames,
                                                std::size_t maxFrames) noexcept {
    prepareFrameWalks();
    platform::Registers registers;
    // What the unwind tables say at the label holds for all the registers stored around it, since
    // none of these instructions changes one of them but rax, which no table asks for. So the byte
    // before the label will do as well, as if the label were where a call returns to.
    asm volatile(
        "movq %%rax, 8*0+%0\n\t"
        "leaq 0f(%%rip), %%rax\n\t"
        "movq %%rax, 8*16+%0\n"
        "0:\n\t"
        "movq %%rdx, 8*1+%0\n\t"
        "movq %%rcx, 8*2+%0\n\t"
        "movq %%rbx, 8*3+%0\n\t"
        "movq %%rsi, 8*4+%0\n\t"
        "movq %%rdi, 8*5+%0\n\t"
        "movq %%rbp, 8*6+%0\n\t"
        "movq %%rsp, 8*7+%0\n\t"
        "movq %%r8, 8*8+%0\n\t"
        "movq %%r9, 8*9+%0\n\t"
        "movq %%r10, 8*10+%0\n\t"
        "movq %%r11, 8*11+%0\n\t"
        "movq %%r12, 8*12+%0\n\t"
        "movq %%r13, 8*13+%0\n\t"
        "movq %%r14, 8*14+%0\n\t"
        "movq %%r15, 8*15+%0"
        : "=m"(registers)
        :
        : "rax");
    const auto frameTop = reinterpret_cast<std::uint64_t>(__builtin_frame_address(0)) + 16;
    Start start{{registers}};
    start.isOwn = true;
    StackWords words(cfi::ownSpace, platform::currentStackRange(),
                     pagesInUse(registers[platform::Rsp], frameTop, frames, maxFrames), true);
    return searching([&] { return walkHeld(start, words, frames, maxFrames); }).frameCount;
}

}  // namespace ThreadUtilities
