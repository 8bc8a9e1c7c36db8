// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Enough of the x86-64 instruction encoding (Intel SDM, volume 2, chapter 2 and appendix A) to pass
// over the code that compilers write at the start of a function.

#include <cstdint>
#include <optional>

#include "foundation/checked_bytes.h"

namespace ThreadUtilities::cfi {

/// One instruction, split into its fields. Fields that it does not have are 0.
struct Instruction {
    enum class Map : std::uint8_t { OneByte, TwoByte, ThreeByte38, ThreeByte3A };

    Map map = Map::OneByte;
    bool isVector = false;  ///< encoded with VEX or EVEX: no effect on general registers' stack
    bool hasModRm = false;
    std::uint8_t opcode = 0;
    std::uint8_t rex = 0;
    std::uint8_t modRm = 0;
    std::uint8_t sib = 0;
    std::int32_t displacement = 0;
    std::int64_t immediate = 0;

    bool is(std::uint8_t oneByteOpcode) const noexcept {
        return map == Map::OneByte && !isVector && opcode == oneByteOpcode;
    }
    bool isWide() const noexcept { return (rex & 8) != 0; }
    bool namesRegister() const noexcept { return hasModRm && modRm >> 6 == 3; }
    /// The register of ModRM's middle field, or what it says more of the opcode.
    unsigned reg() const noexcept { return (modRm >> 3 & 7) | (rex & 4) << 1; }
    unsigned operation() const noexcept { return modRm >> 3 & 7; }
    /// The register of ModRM's last field; what it says where memory is named is not told here.
    unsigned rm() const noexcept { return (modRm & 7) | (rex & 1) << 3; }
    /// Whether the memory operand is the stack pointer plus `displacement`.
    bool addressesStack() const noexcept {
        constexpr std::uint8_t noIndex = 4;
        return hasModRm && modRm >> 6 != 3 && (modRm & 7) == 4 && (sib & 7) == 4 &&
               (sib >> 3 & 7) == noIndex && (rex & 3) == 0;
    }
};

/// The instruction at the cursor, which moves behind it. None, and a failed cursor, where the bytes
/// end or are no instruction that this reader knows.
std::optional<Instruction> readInstruction(ByteCursor& code) noexcept;

}  // namespace ThreadUtilities::cfi
