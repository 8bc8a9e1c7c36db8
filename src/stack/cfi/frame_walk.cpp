#include "stack/frame_walk.h"

#include "platform/code_modules.h"
#include "stack/cfi/cfi_unwinder.h"
#include "stack/stack_words.h"
#include "stack/walk.h"

namespace ThreadUtilities {
namespace {

constinit cfi::RuleCache ruleCache;

using Keeps = cfi::CfiUnwinder::Keeps;

WalkResult walk(const platform::ThreadContext& context, Keeps keeps, cfi::TableCopies* copies,
                StackWords& words, unsigned long long* frames, std::size_t maxFrames) noexcept {
    cfi::WalkMemory memory;
    cfi::CfiUnwinder unwinder(context, ruleCache, keeps, copies, memory);
    return walkStack(unwinder, words, frames, maxFrames);
}

WalkResult walk(const platform::ThreadContext& context, cfi::TableCopies* copies,
                unsigned long long* frames, std::size_t maxFrames) noexcept {
    StackWords words(context.stack, context.stackShift);
    const WalkResult result = walk(context, Keeps::FramePointer, copies, words, frames, maxFrames);
    if (result.end == WalkEnd::UnknownRegister) {
        // A frame farther out is addressed by a register that cached rules do not carry along.
        return walk(context, Keeps::AllRegisters, copies, words, frames, maxFrames);
    }
    return result;
}

/// Not inlined: the room for copies must not be on the stack of a thread that walks itself.
[[gnu::noinline]] WalkResult walkWithCopies(const platform::ThreadContext& context,
                                            unsigned long long* frames,
                                            std::size_t maxFrames) noexcept {
    cfi::TableCopies copies;
    return walk(context, &copies, frames, maxFrames);
}

}  // namespace

void prepareFrameWalks() noexcept {
    platform::prepareModuleLookup();
}

WalkResult walkThread(const platform::ThreadContext& context, unsigned long long* frames,
                      std::size_t maxFrames) noexcept {
    return context.standsStill ? walk(context, nullptr, frames, maxFrames)
                               : walkWithCopies(context, frames, maxFrames);
}

// Not inlined: the walk starts in this function's frame and its first step leaves it.
[[gnu::noinline]] std::size_t walkCallingThread(unsigned long long* frames,
                                                std::size_t maxFrames) noexcept {
    prepareFrameWalks();
    platform::ThreadContext context;
    context.stack = platform::currentStackRange();
    // What the unwind tables say at the label holds for all the registers stored around it, since
    // none of these instructions changes one them.
    asm volatile(
        "leaq 0f(%%rip), %%rax\n\t"
        "movq %%rax, 8*16(%0)\n"
        "0:\n\t"
        "movq %%rbx, 8*3(%0)\n\t"
        "movq %%rbp, 8*6(%0)\n\t"
        "movq %%rsp, 8*7(%0)\n\t"
        "movq %%r12, 8*12(%0)\n\t"
        "movq %%r13, 8*13(%0)\n\t"
        "movq %%r14, 8*14(%0)\n\t"
        "movq %%r15, 8*15(%0)"
        :
        : "r"(context.registers.data())
        : "rax", "memory");
    return walk(context, nullptr, frames, maxFrames).frameCount;
}

}  // namespace ThreadUtilities
