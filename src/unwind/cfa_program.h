// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Call frame programs (DWARF 5, section 6.4.2), run to one row.

#include "unwind/eh_frame.h"
#include "unwind/unwind_row.h"

namespace ThreadUtilities::cfi {

/// States that a program may remember one inside the other; compilers nest one.
inline constexpr unsigned maxRememberedStates = 2;

/// Runs the programs of the CIE and the FDE up to `address`, which the FDE covers. False when they
/// are malformed. Rules of registers that no walk needs (vector registers, for one) are read and
/// dropped.
bool rowAt(const Fde& fde, std::uint64_t address, UnwindRow& row) noexcept;

}  // namespace ThreadUtilities::cfi
