#pragma once

// The stepping rules of a stack walk, the same for every unwinder.

#include <cstddef>
#include <cstdint>

#include "stack/frame_walk.h"

namespace ThreadUtilities {

/// What became of one step outward.
enum class StepResult : unsigned {
    Made,
    EndOfStack,       ///< the frame is marked as the outermost
    NoUnwindData,     ///< no table covers the address
    Unreadable,       ///< a word of the stack or a table cannot be read, or makes no sense
    UnknownRegister,  ///< a register is needed that is not known
};

constexpr WalkEnd endAfter(StepResult result) noexcept {
    switch (result) {
        case StepResult::NoUnwindData:
            return WalkEnd::NoUnwindData;
        case StepResult::Unreadable:
            return WalkEnd::Unreadable;
        case StepResult::UnknownRegister:
            return WalkEnd::UnknownRegister;
        case StepResult::Made:
        case StepResult::EndOfStack:
            break;
    }
    return WalkEnd::EndOfStack;
}

/// Steps at which the stack pointer may fall: a thread that runs on an alternate signal stack, on
/// a coroutine or on a segment of a split stack leaves it for a stack that may lie lower. More
/// than a few such changes in one stack are a loop in damaged memory.
inline constexpr unsigned maxStackChanges = 8;

/// Walks outward from the state of `unwinder` and stores the address that every step arrives at:
/// at most `maxFrames` return addresses, innermost first. The address where the walk starts is not
/// stored.
///
/// An unwinder has
///   std::uint64_t programCounter(), stackPointer()
///   StepResult step(words)                moves one frame outward, if it can
///   void returnTo(address, stackPointer)  leaves a frame whose return address is known already
/// and `words.read(address, word)` is false where memory cannot be read.
template <class Unwinder, class Words>
inline WalkResult walkStack(Unwinder& unwinder, Words& words, unsigned long long* frames,
                            std::size_t maxFrames) noexcept {
    std::size_t count = 0;
    unsigned stackChanges = 0;
    for (;;) {
        if (unwinder.programCounter() == 0) {
            return {count, WalkEnd::EndOfStack};
        }
        if (count == maxFrames) {
            return {count, WalkEnd::FrameLimit};
        }
        const std::uint64_t stackPointer = unwinder.stackPointer();
        if (const StepResult result = unwinder.step(words); result != StepResult::Made)
            [[unlikely]] {
            // Only the innermost function can be one that was entered and has not touched the
            // stack; any other made a call and without tables its frame size is anybody's guess.
            std::uint64_t returnAddress = 0;
            if (result != StepResult::NoUnwindData || count != 0) {
                return {count, endAfter(result)};
            }
            if (!words.read(stackPointer, returnAddress)) {
                return {count, WalkEnd::Unreadable};
            }
            unwinder.returnTo(returnAddress, stackPointer + 8);
        }
        if (unwinder.programCounter() == 0) [[unlikely]] {
            return {count, WalkEnd::EndOfStack};
        }
        if (unwinder.stackPointer() <= stackPointer) [[unlikely]] {
            // The innermost function may have popped its return address into a register already;
            // everywhere else a stack pointer that stays is a loop.
            const bool stays = unwinder.stackPointer() == stackPointer && count != 0;
            if (stays || ++stackChanges > maxStackChanges) {
                return {count, WalkEnd::NoProgress};
            }
        }
        frames[count] = unwinder.programCounter();
        ++count;
    }
}

}  // namespace ThreadUtilities
