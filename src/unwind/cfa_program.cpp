// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "unwind/cfa_program.h"

#include <array>
#include <cstdint>
#include <limits>

#include "unwind/dwarf.h"
#include "unwind/encoded_pointer.h"

namespace ThreadUtilities::cfi {
namespace {

using Kind = RegisterRule::Kind;

/// Interprets the instructions of one CIE and then of one FDE. A malformed instruction fails the
/// cursor it was read from.
class Program {
 public:
    Program(const Fde& programFde, std::uint64_t target, UnwindRow& out) noexcept
        : fde(programFde), targetAddress(target), row(out) {}

    bool run() noexcept {
        // The rules of the CIE hold from the first address on; it has no use for locations.
        ByteCursor initial = fde.initialInstructions;
        if (!runUpToTarget(initial)) {
            return false;
        }
        initialRegisters = row.registers;
        hasInitialRegisters = true;
        location = fde.codeBegin;
        ByteCursor own = fde.instructions;
        return runUpToTarget(own);
    }

 private:
    bool runUpToTarget(ByteCursor& bytes) noexcept {
        while (!bytes.atEnd() && location <= targetAddress) {
            perform(bytes, bytes.read<std::uint8_t>());
        }
        return bytes.ok();
    }

    void perform(ByteCursor& bytes, std::uint8_t code) noexcept {
        const std::uint8_t operand = code & 0x3F;
        const auto operation = static_cast<CfaOp>(operand == code ? code : code & 0xC0);
        switch (operation) {
            case CfaOp::AdvanceLoc:
                return advance(operand);
            case CfaOp::AdvanceLoc1:
                return advance(bytes.read<std::uint8_t>());
            case CfaOp::AdvanceLoc2:
                return advance(bytes.read<std::uint16_t>());
            case CfaOp::AdvanceLoc4:
                return advance(bytes.read<std::uint32_t>());
            case CfaOp::SetLoc:
                location = readEncodedPointer(bytes, fde.pointerEncoding, fde.instructionShift);
                return;
            case CfaOp::Offset:
                return setOffset(bytes, Kind::AtOffset, operand, factored(bytes.uleb128()));
            case CfaOp::Restore:
                return restore(bytes, operand);
            case CfaOp::RestoreExtended:
                return restore(bytes, bytes.uleb128());
            case CfaOp::RememberState:
                return remember(bytes);
            case CfaOp::RestoreState:
                return restoreRemembered(bytes);
            case CfaOp::GnuArgsSize:  // what a catch clause takes off the stack; nothing to a walk
                bytes.uleb128();
                return;
            case CfaOp::Nop:
                return;
            default:
                return performDefinition(bytes, operation);
        }
    }

    /// Instructions that define the CFA.
    void performDefinition(ByteCursor& bytes, CfaOp operation) noexcept {
        switch (operation) {
            case CfaOp::DefCfa:
                setFrameBase(bytes, bytes.uleb128());
                return setFrameOffset(bytes, static_cast<std::int64_t>(bytes.uleb128()));
            case CfaOp::DefCfaSf:
                setFrameBase(bytes, bytes.uleb128());
                return setFrameOffset(bytes, factored(bytes.sleb128()));
            case CfaOp::DefCfaRegister:
                setFrameBase(bytes, bytes.uleb128());
                return requireFrameBase(bytes);
            case CfaOp::DefCfaOffset:
                requireFrameBase(bytes);
                return setFrameOffset(bytes, static_cast<std::int64_t>(bytes.uleb128()));
            case CfaOp::DefCfaOffsetSf:
                requireFrameBase(bytes);
                return setFrameOffset(bytes, factored(bytes.sleb128()));
            case CfaOp::DefCfaExpression:
                row.cfa.isExpression = true;
                row.cfa.expression = takeExpression(bytes);
                return;
            default:
                return performRule(bytes, operation, bytes.uleb128());
        }
    }

    /// Instructions that set the rule of one register.
    void performRule(ByteCursor& bytes, CfaOp operation, std::uint64_t number) noexcept {
        switch (operation) {
            case CfaOp::Undefined:
                return set(number, {Kind::Undefined});
            case CfaOp::SameValue:
                return set(number, {Kind::SameValue});
            case CfaOp::Register:
                return setOffset(bytes, Kind::InRegister, number,
                                 static_cast<std::int64_t>(bytes.uleb128()));
            case CfaOp::OffsetExtended:
                return setOffset(bytes, Kind::AtOffset, number, factored(bytes.uleb128()));
            case CfaOp::OffsetExtendedSf:
                return setOffset(bytes, Kind::AtOffset, number, factored(bytes.sleb128()));
            case CfaOp::GnuNegativeOffsetExtended:
                return setOffset(bytes, Kind::AtOffset, number, factored(0 - bytes.uleb128()));
            case CfaOp::ValOffset:
                return setOffset(bytes, Kind::IsOffset, number, factored(bytes.uleb128()));
            case CfaOp::ValOffsetSf:
                return setOffset(bytes, Kind::IsOffset, number, factored(bytes.sleb128()));
            case CfaOp::Expression:
                return setExpression(bytes, Kind::AtExpression, number);
            case CfaOp::ValExpression:
                return setExpression(bytes, Kind::IsExpression, number);
            default:
                return bytes.fail();
        }
    }

    void advance(std::uint64_t units) noexcept { location += units * fde.codeAlignment; }

    /// A product that leaves 64 bits becomes an offset that no rule can hold.
    std::int64_t factored(std::int64_t units) const noexcept {
        std::int64_t product = 0;
        return __builtin_mul_overflow(units, fde.dataAlignment, &product)
                   ? std::numeric_limits<std::int64_t>::min()
                   : product;
    }
    std::int64_t factored(std::uint64_t units) const noexcept {
        return factored(static_cast<std::int64_t>(units));
    }

    void set(std::uint64_t number, RegisterRule rule) noexcept {
        if (number < row.registers.size()) {
            row.registers[number] = rule;
        }
    }

    void setOffset(ByteCursor& bytes, Kind kind, std::uint64_t number,
                   std::int64_t offset) noexcept {
        if (!RegisterRule::fits(offset)) {
            return bytes.fail();
        }
        set(number, {kind, offset});
    }

    void setExpression(ByteCursor& bytes, Kind kind, std::uint64_t number) noexcept {
        set(number, {kind, static_cast<std::int64_t>(
                               reinterpret_cast<std::uintptr_t>(takeExpression(bytes)))});
    }

    static const std::uint8_t* takeExpression(ByteCursor& bytes) noexcept {
        const std::uint8_t* const block = bytes.data();
        bytes.skip(bytes.uleb128());
        return block;
    }

    void setFrameBase(ByteCursor& bytes, std::uint64_t number) noexcept {
        if (number >= platform::Rip) {
            return bytes.fail();
        }
        row.cfa.base = static_cast<std::uint8_t>(number);
    }

    void setFrameOffset(ByteCursor&, std::int64_t offset) noexcept {
        row.cfa.isExpression = false;
        row.cfa.offset = offset;
    }

    /// Base or offset alone may be changed only while the rule consists of the two.
    void requireFrameBase(ByteCursor& bytes) const noexcept {
        if (row.cfa.isExpression) {
            bytes.fail();
        }
    }

    void restore(ByteCursor& bytes, std::uint64_t number) noexcept {
        if (!hasInitialRegisters) {
            return bytes.fail();
        }
        if (number < row.registers.size()) {
            row.registers[number] = initialRegisters[number];
        }
    }

    void remember(ByteCursor& bytes) noexcept {
        if (rememberedCount == maxRememberedStates) {
            return bytes.fail();
        }
        remembered[rememberedCount++] = row;
    }

    void restoreRemembered(ByteCursor& bytes) noexcept {
        if (rememberedCount == 0) {
            return bytes.fail();
        }
        row = remembered[--rememberedCount];
    }

    const Fde& fde;
    const std::uint64_t targetAddress;
    std::uint64_t location = 0;
    UnwindRow& row;
    bool hasInitialRegisters = false;
    unsigned rememberedCount = 0;
    decltype(UnwindRow::registers) initialRegisters;
    std::array<UnwindRow, maxRememberedStates> remembered;
};

}  // namespace

bool rowAt(const Fde& fde, std::uint64_t address, UnwindRow& row) noexcept {
    row = {};
    return Program(fde, address, row).run();
}

}  // namespace ThreadUtilities::cfi
