// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The stepping rules of a stack walk, the same for every unwinder.

#include <cstddef>
#include <cstdint>

#include "unwind/frame_walk.h"

namespace ThreadUtilities {

/// What became of one step outward.
enum class StepResult : unsigned {
    Made,
    EndOfStack,       ///< the frame is marked as the outermost
    NoUnwindData,     ///< no table covers the address
    Unreadable,       ///< a word of the stack or a table cannot be read, or makes no sense
    UnknownRegister,  ///< a register is needed that is not known
    NotReturnedTo,    ///< the address that the step before led to is none that a call returns to
    LongSearch,       ///< the table would have to be searched entry by entry for long
};

constexpr WalkEnd endAfter(StepResult result) noexcept {
    switch (result) {
        case StepResult::NoUnwindData:
            return WalkEnd::NoUnwindData;
        case StepResult::Unreadable:
            return WalkEnd::Unreadable;
        case StepResult::UnknownRegister:
            return WalkEnd::UnknownRegister;
        case StepResult::NotReturnedTo:
            return WalkEnd::NoReturnAddress;
        case StepResult::LongSearch:
            return WalkEnd::LongSearch;
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

/// Whether the step to `stackPointer`, which led to no return address, has been made anew.
template <class Unwinder, class Words>
inline bool stepsByCode(Unwinder& unwinder, Words& words, std::uint64_t stackPointer) noexcept {
    if constexpr (requires { unwinder.stepByCode(words, stackPointer); }) {
        return unwinder.stepByCode(words, stackPointer);
    } else {
        return false;
    }
}

/// Lets the innermost function's caller be the place of `unwinder`; another end than `FrameLimit`
/// when there is none.
template <class Unwinder, class Words>
inline WalkEnd leaveInnermost(Unwinder& unwinder, Words& words, unsigned& stackChanges) noexcept {
    if (unwinder.programCounter() == 0) {
        return WalkEnd::EndOfStack;
    }
    const std::uint64_t stackPointer = unwinder.stackPointer();
    if (const StepResult result = unwinder.step(words); result != StepResult::Made) {
        // Only the innermost function can be one that was entered and has not touched the stack;
        // any other made a call and without tables its frame size is anybody's guess.
        std::uint64_t returnAddress = 0;
        if (result != StepResult::NoUnwindData) {
            return endAfter(result);
        }
        if (!words.read(stackPointer, returnAddress)) {
            return WalkEnd::Unreadable;
        }
        if (returnAddress != 0 && !unwinder.returnTo(returnAddress, stackPointer + 8)) {
            return WalkEnd::NoUnwindData;
        }
        if (returnAddress == 0) {
            return WalkEnd::EndOfStack;
        }
    }
    // It may have popped its return address into a register already: the stack pointer stays.
    stackChanges = unwinder.stackPointer() <= stackPointer ? 1 : 0;
    return unwinder.programCounter() == 0 && !stepsByCode(unwinder, words, unwinder.stackPointer())
               ? WalkEnd::EndOfStack
               : WalkEnd::FrameLimit;
}

/// Walks outward from the state of `unwinder` and stores the address that every step arrives at:
/// at most `maxFrames` return addresses, innermost first. The address where the walk starts is not
/// stored, and neither is one that the step from it finds to be no return address; nothing behind
/// the entries that the result counts is written.
///
/// An unwinder has
///   std::uint64_t programCounter(), stackPointer()
///   StepResult step(words)                moves one frame outward, if it can
///   bool returnTo(address, stackPointer)  leaves the first frame by an address that is a guess;
///                                         false when it refuses that
///   bool isReturnedTo()                   whether the address arrived at may be stored as the last
/// may have
///   std::size_t stepAhead(frames, room)   makes steps of which nothing needs to be checked, each
///                                         to a higher stack pointer, and stores where each began;
///                                         returns how many. From the outermost frame the step
///                                         leads to a program counter of 0
///   bool stepByCode(words, stackPointer)  makes the step that led to `stackPointer` and to no
///                                         return address in another way, if it can
/// and `words.read(address, word)` is false where memory cannot be read.
template <class Unwinder, class Words>
inline WalkResult walkStack(Unwinder& unwinder, Words& words, unsigned long long* frames,
                            std::size_t maxFrames) noexcept {
    unsigned stackChanges = 0;
    if (const WalkEnd end = leaveInnermost(unwinder, words, stackChanges);
        end != WalkEnd::FrameLimit || maxFrames == 0) {
        return {0, end};
    }
    std::size_t count = 0;
    for (;;) {
        if constexpr (requires { unwinder.stepAhead(frames, maxFrames); }) {
            count += unwinder.stepAhead(frames + count, maxFrames - 1 - count);
            if (unwinder.programCounter() == 0) {
                return {count, WalkEnd::EndOfStack};
            }
        }
        const std::uint64_t arrivedAt = unwinder.programCounter();
        const std::uint64_t stackPointer = unwinder.stackPointer();
        if (count + 1 == maxFrames) [[unlikely]] {
            if (!unwinder.isReturnedTo()) {
                if (stepsByCode(unwinder, words, stackPointer)) {
                    continue;
                }
                return {count, WalkEnd::NoReturnAddress};
            }
            frames[count] = arrivedAt;
            return {maxFrames, WalkEnd::FrameLimit};
        }
        const StepResult result = unwinder.step(words);
        if (result == StepResult::NotReturnedTo) [[unlikely]] {
            if (stepsByCode(unwinder, words, stackPointer)) {
                continue;
            }
            return {count, WalkEnd::NoReturnAddress};
        }
        frames[count] = arrivedAt;
        ++count;
        if (result != StepResult::Made) [[unlikely]] {
            return {count, endAfter(result)};
        }
        if (unwinder.programCounter() == 0) [[unlikely]] {
            if (stepsByCode(unwinder, words, unwinder.stackPointer())) {
                continue;
            }
            return {count, WalkEnd::EndOfStack};
        }
        if (unwinder.stackPointer() <= stackPointer) [[unlikely]] {
            // A stack pointer that stays is a loop.
            if (unwinder.stackPointer() == stackPointer || ++stackChanges > maxStackChanges) {
                return {count, WalkEnd::NoProgress};
            }
        }
    }
}

}  // namespace ThreadUtilities
