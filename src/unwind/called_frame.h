// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Whether words of the stack are the frame of a function's caller: what proves a place that was
// found by reading code.

#include <cstdint>

#include "unwind/stack_words.h"
#include "unwind/table_reader.h"

namespace ThreadUtilities::cfi {

enum class Calls {
    This,     ///< this function, by its name
    Another,  ///< or none
    Unnamed,  ///< through a register or data that may have changed since
};

/// Whom the call right before `returnAddress` calls, for the function that begins at
/// `functionBegin`. Reads as `callSiteAt` does.
Calls callsFunction(const AddressSpace& space, std::uint64_t returnAddress,
                    std::uint64_t functionBegin) noexcept;

/// The registers of a caller, behind its call.
struct CalledFrame {
    std::uint64_t returnAddress = 0;
    std::uint64_t stackPointer = 0;
    std::uint64_t framePointer = 0;
};

/// Whether one step outward from these leads to the end of the stack, or behind a call.
/// Context: target stopped, or signal handler, where the system may be called.
bool leadsOn(const CalledFrame& frame, const TableSource& source, StackWords& words) noexcept;

}  // namespace ThreadUtilities::cfi
