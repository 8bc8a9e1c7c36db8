// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// What an instruction does to the registers that a frame is found by, rsp and rbp.

#include <cstdint>

#include "unwind/instruction.h"

namespace ThreadUtilities::cfi {

struct StackEffect {
    enum class Kind : std::uint8_t {
        None,
        MovesStack,    ///< by `bytes`
        PushesFrame,   ///< and so moves the stack pointer
        PopsFrame,     ///< likewise
        AlignsStack,   ///< down to a multiple of `bytes`
        SetsFrame,     ///< to the stack pointer plus `bytes`
        ChangesFrame,  ///< in another way
        Branches,      ///< may go on elsewhere, or here
        Leaves,        ///< goes on elsewhere
        Unknown,       ///< changes the stack pointer in another way
    };

    Kind kind = Kind::None;
    std::int64_t bytes = 0;
};

/// Of what compilers and authors of assembly write: those that change rsp as if it were a number
/// are not all known.
StackEffect stackEffectOf(const Instruction& instruction) noexcept;

}  // namespace ThreadUtilities::cfi
