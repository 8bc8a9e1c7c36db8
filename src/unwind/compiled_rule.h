// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstdint>

#include "unwind/unwind_row.h"

namespace ThreadUtilities::cfi {

/// A row of the usual shape in 32 bits: the CFA is the stack or frame pointer plus a
/// multiple of 8, the return address lies right below it, and the frame pointer is untouched or
/// saved below it. Of the 64-bit ABI's code 90 to 99.98 percent has such rows, depending on the
/// library. What a row says of the other registers is left out.
///
///   bit 0        the CFA counts from the frame pointer, else from the stack pointer
///   bit 1        the frame pointer is saved
///   bits 3-14    where the frame pointer is saved: words below the CFA. 1, where the
///                return address is, when it is not saved: reading it then is harmless. Never
///                below what the CFA counts from
///   bits 15-31   CFA minus its base, in words. All ones, and bit 0 set with them, for
///                the two rules that are none: there is no caller, or only the tables tell
///
/// No rule is 0.
class CompiledRule {
 public:
    constexpr CompiledRule() noexcept = default;
    static constexpr CompiledRule fromBits(std::uint32_t bits) noexcept {
        return CompiledRule(bits);
    }
    /// For rows of another shape: that the address was found to be a true one.
    static constexpr CompiledRule byTables() noexcept { return CompiledRule(onlyTablesTell); }

    /// The compiled form of a row; an empty rule when the row is of another shape.
    static CompiledRule of(const UnwindRow& row, std::uint64_t returnAddressColumn) noexcept {
        using Kind = RegisterRule::Kind;
        const RegisterRule returnRule = row.registers[returnAddressColumn];
        if (returnRule.kind() == Kind::Undefined) {
            return CompiledRule(noCaller);
        }
        const CfaRule& frame = row.cfa;
        const bool fromFramePointer = frame.base == platform::Rbp;
        if (frame.isExpression || (!fromFramePointer && frame.base != platform::Rsp) ||
            frame.offset % wordSize != 0 || frame.offset < wordSize || frame.offset > maxOffset ||
            returnRule != RegisterRule(Kind::AtOffset, -wordSize) ||
            row.registers[platform::Rsp].kind() != Kind::SameValue) {
            return {};
        }
        const RegisterRule saved = row.registers[platform::Rbp];
        const std::uint32_t bits = (fromFramePointer ? basedOnFramePointer : 0) |
                                   static_cast<std::uint32_t>(frame.offset / wordSize)
                                       << offsetShift;
        if (saved.kind() == Kind::SameValue) {
            return CompiledRule(bits | wordSize);
        }
        const std::int64_t distance = -saved.value();
        if (saved.kind() != Kind::AtOffset || distance % wordSize != 0 || distance < wordSize ||
            distance > maxDistance || distance > frame.offset) {
            return {};
        }
        return CompiledRule(bits | savesFrame | static_cast<std::uint32_t>(distance));
    }

    constexpr explicit operator bool() const noexcept { return bits != 0; }
    constexpr std::uint32_t toBits() const noexcept { return bits; }

    constexpr bool hasCaller() const noexcept { return bits != noCaller; }
    constexpr bool needsTables() const noexcept { return bits == onlyTablesTell; }
    /// Whether it is no rule to follow: without a caller, or in need of the tables.
    constexpr bool isNone() const noexcept { return bits >> offsetShift == noOffset; }
    /// Of those too.
    constexpr bool usesFramePointer() const noexcept { return (bits & basedOnFramePointer) != 0; }
    constexpr bool savesFramePointer() const noexcept { return (bits & savesFrame) != 0; }
    /// Bytes from the slot of the saved frame pointer up to the CFA.
    constexpr std::uint64_t framePointerDistance() const noexcept { return bits & maxDistance; }
    /// Bytes, at least 8.
    constexpr std::uint64_t cfaOffset() const noexcept {
        return std::uint64_t{bits >> offsetShift} * wordSize;
    }

 private:
    static constexpr std::int64_t wordSize = 8;
    static constexpr std::uint32_t basedOnFramePointer = 1;
    static constexpr std::uint32_t savesFrame = 2;
    static constexpr std::int64_t maxDistance = ((1 << 12) - 1) * wordSize;
    static constexpr unsigned offsetShift = 15;
    static constexpr std::int64_t maxOffset = ((1 << 17) - 2) * wordSize;
    static constexpr std::uint32_t noOffset = (1 << 17) - 1;
    static constexpr std::uint32_t noCaller =
        noOffset << offsetShift | basedOnFramePointer | wordSize;
    static constexpr std::uint32_t onlyTablesTell =
        noOffset << offsetShift | basedOnFramePointer | 2 * wordSize;

    constexpr explicit CompiledRule(std::uint32_t ruleBits) noexcept : bits(ruleBits) {}

    std::uint32_t bits = 0;
};

}  // namespace ThreadUtilities::cfi
