// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The frame pointer of a thread that is blocked in the kernel, which tells its stack pointer and
// not this one.

#include <cstdint>

#include "platform/code_modules.h"
#include "unwind/stack_words.h"
#include "unwind/table_reader.h"

namespace ThreadUtilities::cfi {

/// Finds the frame pointer of the function that covers `address` in `module`, in a frame with this
/// stack pointer. `address` is one byte before the return address of its call, or behind the
/// instruction with which it entered the kernel: there its frame is whole.
///
/// The function's prologue says where it must be. What it says is taken for true only when the
/// stack agrees: the word above the saved frame pointer must be a return address behind a call of
/// this very function; where the call does not name whom it calls, the frame after that must end in
/// a return address behind a call as well. False when that cannot be proven.
///
/// Reads code and tables through the space. Takes some microseconds, and 1.5 KB of stack; not for
/// signal handlers.
bool recoverFramePointer(const platform::CodeModule& module, std::uint64_t address,
                         std::uint64_t stackPointer, const TableSource& source, StackWords& words,
                         std::uint64_t& framePointer) noexcept;

}  // namespace ThreadUtilities::cfi
