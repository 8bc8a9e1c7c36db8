// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstdint>

#include "platform/code_modules.h"
#include "platform/thread_context.h"
#include "unwind/register_file.h"
#include "unwind/rule_cache.h"
#include "unwind/table_reader.h"

namespace ThreadUtilities::cfi {

/// Where a walk stands. Short enough to be kept in processor registers.
struct Position {
    std::uint64_t instructionPointer = 0;
    std::uint64_t stackPointer = 0;
    std::uint64_t framePointer = 0;
    RuleCache::Slot predicted = 0;                 ///< where the rule of this frame is expected
    RuleCache::Slot previous = RuleCache::noSlot;  ///< where the rule of the frame before stands
    /// Of the module that the frame before was in; none unless the next step may be one by a
    /// cached rule: the instruction pointer is a return address, the frame pointer known, and
    /// the stack pointer in the part of the stack known to be readable.
    std::uint64_t identity = RuleCache::noIdentity;
};

/// What a walk knows beyond its position.
struct WalkState {
    WalkState(const platform::Registers& startRegisters, std::uint32_t knownAtStart,
              bool systemMayBeCalled, const TableSource& tableSource) noexcept
        : start(startRegisters),
          knownRegisters(knownAtStart),
          mayCallSystem(systemMayBeCalled),
          tables(tableSource) {}

    const platform::Registers& start;
    const std::uint32_t knownRegisters;  ///< of `start`
    const bool mayCallSystem;
    /// With room for copies where modules may be unloaded that the walk finds: the thread is not
    /// held, or the walk went on from a guess.
    const TableSource tables;
    bool lacksCopies = false;  ///< for the guess that would lead on

    platform::CodeModule module;  ///< of the frame before, most likely of this one too
    /// The registers of the frame with this stack pointer, for steps by tables.
    RegisterFile registers;
    std::uint64_t stackPointerOfRegisters = 0;
    bool knowsFramePointer = true;
    /// Whether the instruction pointer is a return address. Then the byte before it is looked up,
    /// which belongs to the call: where the call does not return, the address itself may belong to
    /// the next function or to another row. Not so where the thread stands and where a signal
    /// struck.
    bool atReturnAddress = false;

    /// Where the thread was interrupted that has been stepped out of last; a stack pointer of 0
    /// for none.
    struct Interrupted {
        std::uint64_t instructionPointer = 0;
        std::uint64_t stackPointer = 0;
        std::uint64_t framePointer = 0;
    } interrupted;
};

inline bool covers(const platform::CodeModule& module, std::uint64_t address) noexcept {
    return address - module.begin < module.size;
}

/// An identity as a key has it.
inline std::uint64_t orNone(std::uint64_t identity) noexcept {
    return identity != 0 ? identity : RuleCache::noIdentity;
}

}  // namespace ThreadUtilities::cfi
