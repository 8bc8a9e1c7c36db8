// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <array>
#include <cstdint>

#include "fuzz/require.h"
#include "unwind/apply_row.h"
#include "unwind/compiled_rule.h"
#include "unwind/own_space.h"

namespace ThreadUtilities::cfi {

/// A stack of a few words, and registers that mostly point into it.
class MadeUpFrame {
 public:
    MadeUpFrame() {
        for (std::size_t index = 0; index < stack.size(); ++index) {
            stack[index] = begin() + 8 * (index * 7 % stack.size());
        }
        platform::Registers values;
        for (std::size_t number = 0; number < values.size(); ++number) {
            values[number] = begin() + 16 * number;
        }
        values[platform::R15] = ~std::uint64_t{0} - 7;
        // One that is not known, as after a cached rule.
        registers =
            RegisterFile(values, platform::allRegisters & ~platform::registerBit(platform::R14));
    }

    /// The rules may lead anywhere: no word outside the stack is read but through the system.
    void apply(const UnwindRow& row, std::uint64_t returnAddressColumn,
               const std::uint8_t* tableEnd) {
        StackWords words(ownSpace, {begin(), begin() + 8 * stack.size()});
        if (applyRow(row, returnAddressColumn, tableEnd, registers, words) == StepResult::Made) {
            require(registers.has(platform::Rip) && registers.has(platform::Rsp));
        }
        const CompiledRule rule = CompiledRule::of(row, returnAddressColumn);
        require(CompiledRule::fromBits(rule.toBits()).toBits() == rule.toBits());
    }

    RegisterFile registers;

 private:
    std::uint64_t begin() const { return reinterpret_cast<std::uint64_t>(stack.data()); }

    std::array<std::uint64_t, 64> stack;
};

}  // namespace ThreadUtilities::cfi
