#pragma once

#include <cstdint>

#include "stack/cfi/unwind_row.h"

namespace ThreadUtilities::cfi {

/// A row of the usual shape in 50 bits: the frame address is the stack or frame pointer plus a
/// multiple of 8, the return address lies right below it, and the frame pointer is untouched or
/// saved below it. Of the 64-bit ABI's code 90 to 99.98 percent has such rows, depending on the
/// library. What a row says of the other registers is left out.
///
///   bit 0        set in every rule; alone, it says that there is no caller
///   bit 2        the frame address counts from the frame pointer, else from the stack pointer
///   bit 3        the frame pointer is saved
///   bits 4-17    where: words below the frame address. 1, where the return address is, when it
///                is not saved, so that reading the slot needs no test and is harmless
///   bits 18-49   frame address minus its base, in bytes
///   bits 50-63   not part of the rule
class CompiledRule {
 public:
    static constexpr unsigned usedBits = 50;

    constexpr CompiledRule() noexcept = default;
    static constexpr CompiledRule fromBits(std::uint64_t bits) noexcept {
        return CompiledRule(bits & mask);
    }

    /// The compiled form of a row; an empty rule when the row is of another shape.
    static CompiledRule of(const UnwindRow& row, std::uint64_t returnAddressColumn) noexcept {
        using Kind = RegisterRule::Kind;
        const RegisterRule returnRule = row.registers[returnAddressColumn];
        if (returnRule.kind() == Kind::Undefined) {
            return CompiledRule(endOfStackRule);
        }
        const FrameAddressRule& frame = row.frameAddress;
        const bool fromFramePointer = frame.base == platform::Rbp;
        if (frame.isExpression || (!fromFramePointer && frame.base != platform::Rsp) ||
            frame.offset % wordSize != 0 || frame.offset < wordSize || frame.offset > maxOffset ||
            returnRule != RegisterRule(Kind::AtOffset, -wordSize) ||
            row.registers[platform::Rsp].kind() != Kind::SameValue) {
            return {};
        }
        const RegisterRule saved = row.registers[platform::Rbp];
        std::uint64_t bits = present | (fromFramePointer ? basedOnFramePointer : 0) |
                             static_cast<std::uint64_t>(frame.offset) << offsetShift;
        if (saved.kind() == Kind::SameValue) {
            return CompiledRule(bits | 1u << slotShift);
        }
        if (saved.kind() != Kind::AtOffset || saved.value() % wordSize != 0 || saved.value() >= 0 ||
            -saved.value() / wordSize > maxSlot) {
            return {};
        }
        return CompiledRule(bits | savesFrame |
                            static_cast<std::uint64_t>(-saved.value() / wordSize) << slotShift);
    }

    constexpr explicit operator bool() const noexcept { return bits != 0; }
    constexpr std::uint64_t toBits() const noexcept { return bits; }

    /// Whether there is a caller; false for an empty rule.
    constexpr bool leadsOut() const noexcept { return bits > endOfStackRule; }
    constexpr bool usesFramePointer() const noexcept { return (bits & basedOnFramePointer) != 0; }
    constexpr bool savesFramePointer() const noexcept { return (bits & savesFrame) != 0; }
    /// Bytes from the slot of the saved frame pointer up to the frame address.
    constexpr std::uint64_t framePointerDistance() const noexcept {
        return (bits >> slotShift & maxSlot) * wordSize;
    }
    constexpr std::uint64_t frameAddressOffset() const noexcept {
        return bits >> offsetShift & 0xFFFFFFFF;
    }

 private:
    static constexpr std::int64_t wordSize = 8;
    static constexpr std::uint64_t present = 1;
    static constexpr std::uint64_t endOfStackRule = 1;
    static constexpr std::uint64_t basedOnFramePointer = 4;
    static constexpr std::uint64_t savesFrame = 8;
    static constexpr unsigned slotShift = 4;
    static constexpr std::int64_t maxSlot = (1 << 14) - 1;
    static constexpr unsigned offsetShift = 18;
    static constexpr std::int64_t maxOffset = 0xFFFFFFFF;
    static constexpr std::uint64_t mask = (std::uint64_t{1} << usedBits) - 1;

    constexpr explicit CompiledRule(std::uint64_t ruleBits) noexcept : bits(ruleBits) {}

    std::uint64_t bits = 0;
};

}  // namespace ThreadUtilities::cfi
