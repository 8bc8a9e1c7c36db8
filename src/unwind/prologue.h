// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Where a function keeps its frame pointer, seen from its stack pointer: what its first
// instructions say, since unwind tables do not.

#include <cstdint>
#include <optional>

#include "foundation/checked_bytes.h"

namespace ThreadUtilities::cfi {

/// The frame pointer of a function that has set one up and stands at a call: at least `distance`
/// bytes above the stack pointer, and at most `slack` bytes more, a multiple of 8, where the
/// function has aligned its stack pointer downward.
struct FramePointerPlace {
    std::uint64_t distance = 0;
    std::uint64_t slack = 0;
};

/// Reads a function's code from its entry on, up to the instruction in which it stands, `length`
/// bytes from the entry. None where that is not what compilers write: the prologue saves rbp and
/// points it at the saved value, pushes other registers and lowers the stack pointer by constants
/// or to an alignment, before the first branch or call; whatever else stands between must leave rsp
/// and rbp alone.
///
/// What is found is what the prologue says. Where the function changes its stack pointer later
/// (room of variable size, arguments pushed for a call), it is not true at that place: prove it
/// before use.
std::optional<FramePointerPlace> findFramePointer(ByteCursor code, std::uint64_t length) noexcept;

}  // namespace ThreadUtilities::cfi
