// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include "unwind/register_file.h"
#include "unwind/stack_words.h"
#include "unwind/unwind_row.h"
#include "unwind/walk.h"

namespace ThreadUtilities::cfi {

/// Turns the registers of a frame into those of its caller. The caller's instruction pointer is
/// what the rule of `returnAddressColumn` gives. `tableEnd` bounds the row's expressions. Leaves
/// the registers alone when it gives a reason why it could not.
StepResult applyRow(const UnwindRow& row, std::uint64_t returnAddressColumn,
                    const std::uint8_t* tableEnd, RegisterFile& registers,
                    StackWords& words) noexcept;

}  // namespace ThreadUtilities::cfi
