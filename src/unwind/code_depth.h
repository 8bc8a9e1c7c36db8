// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The caller of a function whose unwind tables leave out what it pushed, as those of assembly do
// whose author wrote none: found by reading its code.

#include <cstdint>
#include <optional>

#include "platform/code_modules.h"
#include "unwind/called_frame.h"
#include "unwind/stack_words.h"
#include "unwind/table_reader.h"
#include "unwind/table_step.h"

namespace ThreadUtilities::cfi {

/// What a function has on the stack at one of its instructions.
struct StackDepth {
    std::uint64_t depth = 0;  ///< bytes from the stack pointer up to the return address
    /// The same for the saved frame pointer; 0 where the register still holds it.
    std::uint64_t savedFrame = 0;
};

/// Follows the code of a function from its entry to `address`. None where that cannot be told: the
/// code is too long, the stack pointer is moved other than by constants, two ways to one
/// instruction leave it at different depths, or no way is seen.
/// Reads through the space.
std::optional<StackDepth> findStackDepth(const AddressSpace& space, const FunctionCode& function,
                                         std::uint64_t address) noexcept;

/// The caller of the function in `module` in which a thread stands at `address`, interrupted. Only
/// where the call before its return address names this very function, and the caller's own frame
/// leads on.
/// Takes some microseconds.
/// Context: target stopped, or signal handler, where the system may be called.
bool findCallerByCode(const platform::CodeModule& module, std::uint64_t address,
                      std::uint64_t stackPointer, std::uint64_t framePointer,
                      const TableSource& source, StackWords& words, CalledFrame& caller) noexcept;

}  // namespace ThreadUtilities::cfi
