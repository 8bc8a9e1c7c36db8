#include "stack/frame_walk.h"

#include "platform/code_modules.h"
#include "stack/cfi/cfi_unwinder.h"
#include "stack/stack_words.h"
#include "stack/walk.h"

namespace ThreadUtilities {
namespace {

constinit cfi::RuleCache ruleCache;

using Keeps = cfi::CfiUnwinder::Keeps;

/// Where a walk starts and what it may read without asking.
struct Start {
    const platform::Registers& registers;
    std::uint32_t knownRegisters;
    platform::ReadableRange stack;
    std::uint64_t stackShift;
    bool isLikeCaller = false;  ///< as `CfiUnwinder::startAsCaller` asks for
};

WalkResult walk(const Start& start, Keeps keeps, cfi::TableCopies* copies, StackWords& words,
                unsigned long long* frames, std::size_t maxFrames) noexcept {
    cfi::WalkMemory memory(start.registers, start.knownRegisters, copies);
    cfi::CfiUnwinder unwinder(ruleCache, keeps, start.stack, start.stackShift, memory);
    if (start.isLikeCaller && keeps == Keeps::FramePointer) {
        unwinder.startAsCaller();
    }
    return walkStack(unwinder, words, frames, maxFrames);
}

WalkResult walk(const Start& start, cfi::TableCopies* copies, unsigned long long* frames,
                std::size_t maxFrames) noexcept {
    StackWords words(start.stack, start.stackShift);
    const WalkResult result = walk(start, Keeps::FramePointer, copies, words, frames, maxFrames);
    if (result.end == WalkEnd::UnknownRegister) [[unlikely]] {
        // A frame farther out is addressed by a register that cached rules do not carry along.
        return walk(start, Keeps::AllRegisters, copies, words, frames, maxFrames);
    }
    return result;
}

/// Not inlined: the room for copies must not be on the stack of a thread that walks itself.
[[gnu::noinline]] WalkResult walkWithCopies(const Start& start, unsigned long long* frames,
                                            std::size_t maxFrames) noexcept {
    cfi::TableCopies copies;
    return walk(start, &copies, frames, maxFrames);
}

}  // namespace

void prepareFrameWalks() noexcept {
    platform::prepareModuleLookup();
}

WalkResult walkThread(const platform::ThreadContext& context, unsigned long long* frames,
                      std::size_t maxFrames) noexcept {
    const Start start{context.registers, context.knownRegisters, context.stack, context.stackShift};
    return context.standsStill ? walk(start, nullptr, frames, maxFrames)
                               : walkWithCopies(start, frames, maxFrames);
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
    const platform::ReadableRange stack = platform::currentStackRange();
    const std::uint64_t stackPointer = registers[platform::Rsp];
    const bool isOnKnownStack = stack.begin <= stackPointer && stackPointer <= stack.end;
    const Start start{registers, platform::allRegisters, stack, 0, isOnKnownStack};
    return walk(start, nullptr, frames, maxFrames).frameCount;
}

}  // namespace ThreadUtilities
