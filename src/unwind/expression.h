// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// DWARF expressions (DWARF 5, section 2.5), as far as unwind tables use them.

#include <cstdint>

#include "foundation/checked_bytes.h"
#include "unwind/register_file.h"
#include "unwind/stack_words.h"
#include "unwind/walk.h"

namespace ThreadUtilities::cfi {

/// Operations that one expression may carry out: branches may form a loop.
inline constexpr unsigned maxExpressionSteps = 512;
inline constexpr unsigned expressionStackSize = 32;

/// Evaluates the operations in `bytes`. With `initial`, that value is pushed first. On success
/// `result` is the topmost value.
StepResult evaluateExpression(ByteCursor bytes, const RegisterFile& registers, StackWords& words,
                              const std::uint64_t* initial, std::uint64_t& result) noexcept;

}  // namespace ThreadUtilities::cfi
