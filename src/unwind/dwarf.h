// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Operation codes of call frame programs and expressions (DWARF 5, sections 7.24 and 7.7.1).

#include <cstdint>

namespace ThreadUtilities::cfi {

/// Call frame instructions. The first three carry an operand in their low six bits.
enum class CfaOp : std::uint8_t {
    // clang-format off
    AdvanceLoc = 0x40, Offset = 0x80, Restore = 0xC0,

    Nop = 0x00, SetLoc = 0x01, AdvanceLoc1 = 0x02, AdvanceLoc2 = 0x03, AdvanceLoc4 = 0x04,
    OffsetExtended = 0x05, RestoreExtended = 0x06, Undefined = 0x07, SameValue = 0x08,
    Register = 0x09, RememberState = 0x0A, RestoreState = 0x0B,
    DefCfa = 0x0C, DefCfaRegister = 0x0D, DefCfaOffset = 0x0E, DefCfaExpression = 0x0F,
    Expression = 0x10, OffsetExtendedSf = 0x11, DefCfaSf = 0x12, DefCfaOffsetSf = 0x13,
    ValOffset = 0x14, ValOffsetSf = 0x15, ValExpression = 0x16,

    // Vendor extensions (LSB 5.0, section 10.5.4)
    GnuArgsSize = 0x2E, GnuNegativeOffsetExtended = 0x2F,
    // clang-format on
};

/// Expression operations.
enum class Op : std::uint8_t {
    // clang-format off
    Addr = 0x03, Deref = 0x06,
    Const1u = 0x08, Const1s, Const2u, Const2s, Const4u, Const4s, Const8u, Const8s, Constu, Consts,
    Dup = 0x12, Drop, Over, Pick, Swap, Rot,
    Abs = 0x19, And, Div, Minus, Mod, Mul, Neg, Not, Or, Plus, PlusUconst, Shl, Shr, Shra, Xor,
    Bra = 0x28, Eq, Ge, Gt, Le, Lt, Ne, Skip,
    Lit0 = 0x30, Lit31 = 0x4F,
    Reg0 = 0x50, Reg31 = 0x6F,
    Breg0 = 0x70, Breg31 = 0x8F,
    Regx = 0x90, Bregx = 0x92, DerefSize = 0x94, Nop = 0x96,
    // clang-format on
};

}  // namespace ThreadUtilities::cfi
