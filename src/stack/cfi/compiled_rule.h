#pragma once

#include <cstdint>

#include "stack/cfi/unwind_row.h"

namespace ThreadUtilities::cfi {

/// A row of the usual shape in 50 bits: the frame address is the stack or frame pointer plus a
/// multiple of 8, the return address lies right below it, and the frame pointer is untouched or
/// saved below it. Of the 64-bit ABI's code 90 to 99.98 percent has such rows, depending on the
/// library. What a row says of the other registers is left out.
///
///   bit 0        set in every rule
///   bit 1        the frame address counts from the frame pointer, else from the stack pointer
///   bit 2        the frame pointer is saved
///   bits 4-17    not part of the rule
///   bits 18-31   where the frame pointer is saved: words below the frame address. 1, where the
///                return address is, when it is not saved: reading it then is harmless. Never
///                below what the frame address counts from
///   bits 32-63   frame address minus its base, in bytes; all ones when there is no caller
class CompiledRule {
 public:
    static constexpr unsigned freeShift = 4;
    static constexpr unsigned freeBits = 14;
    static constexpr std::uint64_t freeMask = ((std::uint64_t{1} << freeBits) - 1) << freeShift;

    constexpr CompiledRule() noexcept = default;
    /// Whatever the free bits hold is no part of the rule.
    static constexpr CompiledRule fromBits(std::uint64_t bits) noexcept {
        return CompiledRule(bits);
    }

    /// The compiled form of a row; an empty rule when the row is of another shape.
    static CompiledRule of(const UnwindRow& row, std::uint64_t returnAddressColumn) noexcept {
        using Kind = RegisterRule::Kind;
        const RegisterRule returnRule = row.registers[returnAddressColumn];
        if (returnRule.kind() == Kind::Undefined) {
            return CompiledRule(present | noCallerOffset << offsetShift);
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
        const std::uint64_t bits = present | (fromFramePointer ? basedOnFramePointer : 0) |
                                   static_cast<std::uint64_t>(frame.offset) << offsetShift;
        if (saved.kind() == Kind::SameValue) {
            return CompiledRule(bits | std::uint64_t{1} << distanceShift);
        }
        const std::int64_t distance = -saved.value();
        if (saved.kind() != Kind::AtOffset || distance % wordSize != 0 || distance < wordSize ||
            distance / wordSize > maxDistance || distance > frame.offset) {
            return {};
        }
        return CompiledRule(bits | savesFrame |
                            static_cast<std::uint64_t>(distance / wordSize) << distanceShift);
    }

    constexpr explicit operator bool() const noexcept { return bits != 0; }
    constexpr std::uint64_t toBits() const noexcept { return bits & ~freeMask; }

    constexpr bool hasCaller() const noexcept { return frameAddressOffset() != noCallerOffset; }
    constexpr bool usesFramePointer() const noexcept { return (bits & basedOnFramePointer) != 0; }
    constexpr bool savesFramePointer() const noexcept { return (bits & savesFrame) != 0; }
    /// Bytes from the slot of the saved frame pointer up to the frame address.
    constexpr std::uint64_t framePointerDistance() const noexcept {
        return (bits >> distanceShift & maxDistance) * wordSize;
    }
    constexpr std::uint64_t frameAddressOffset() const noexcept { return bits >> offsetShift; }

 private:
    static constexpr std::int64_t wordSize = 8;
    static constexpr std::uint64_t present = 1;
    static constexpr std::uint64_t basedOnFramePointer = 2;
    static constexpr std::uint64_t savesFrame = 4;
    static constexpr unsigned distanceShift = 18;
    static constexpr std::int64_t maxDistance = (1 << 14) - 1;
    static constexpr unsigned offsetShift = 32;
    static constexpr std::int64_t maxOffset = 0xFFFFFFF0;
    static constexpr std::uint64_t noCallerOffset = 0xFFFFFFFF;

    constexpr explicit CompiledRule(std::uint64_t ruleBits) noexcept : bits(ruleBits) {}

    std::uint64_t bits = 0;
};

}  // namespace ThreadUtilities::cfi
