// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// What the kernel saved of a thread when it called a signal handler on it.

#include <signal.h>
#include <ucontext.h>

#include "platform/thread_context.h"

namespace ThreadUtilities::platform {

inline Registers savedRegisters(const ucontext_t& interrupted) noexcept {
    static constexpr std::array<int, RegisterCount> savedAs{
        REG_RAX, REG_RDX, REG_RCX, REG_RBX, REG_RSI, REG_RDI, REG_RBP, REG_RSP, REG_R8,
        REG_R9,  REG_R10, REG_R11, REG_R12, REG_R13, REG_R14, REG_R15, REG_RIP};
    Registers registers;
    for (std::size_t number = 0; number < RegisterCount; ++number) {
        registers[number] =
            static_cast<std::uint64_t>(interrupted.uc_mcontext.gregs[savedAs[number]]);
    }
    return registers;
}

/// The pages that the kernel has just written for the signal, if it did so on the stack that was in
/// use: from the context up to the red zone, below which the registers' extended state was put at
/// the next multiple of 64.
inline ReadableRange pagesOfSignal(const ucontext_t& interrupted) noexcept {
    constexpr std::uint64_t unwritten = 128 + 64;
    const auto context = reinterpret_cast<std::uint64_t>(&interrupted);
    const auto stackPointer = static_cast<std::uint64_t>(interrupted.uc_mcontext.gregs[REG_RSP]);
    const auto alternate = reinterpret_cast<std::uint64_t>(interrupted.uc_stack.ss_sp);
    const auto isAlternate = [&](std::uint64_t address) {
        return (interrupted.uc_stack.ss_flags & SS_DISABLE) == 0 &&
               address - alternate < interrupted.uc_stack.ss_size;
    };
    const bool isOnSameStack = !isAlternate(context) || isAlternate(stackPointer);
    if (!isOnSameStack || stackPointer < context || stackPointer - context < unwritten) {
        return {};
    }
    return {pageOf(context), pageEndOf(stackPointer - unwritten)};
}

/// The part of a stack that a walk from `stackPointer` may read: what lies above, and the 128 bytes
/// below, where functions without calls keep data and where registers that an epilogue has popped
/// still stand. Empty when the stack pointer is not on this stack.
inline ReadableRange readableStack(const ReadableRange& bounds,
                                   std::uint64_t stackPointer) noexcept {
    constexpr std::uint64_t redZone = 128;
    if (stackPointer < bounds.begin || stackPointer >= bounds.end) {
        return {};
    }
    const std::uint64_t above = stackPointer - bounds.begin;
    return {stackPointer - (above < redZone ? above : redZone), bounds.end};
}

}  // namespace ThreadUtilities::platform
