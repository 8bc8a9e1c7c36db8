// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstdint>

#include "platform/thread_context.h"

namespace ThreadUtilities::cfi {

/// The registers of one frame, and which of them are known.
class RegisterFile {
 public:
    /// Knows none.
    RegisterFile() noexcept {}  // NOLINT(cppcoreguidelines-pro-type-member-init): need not cost
    RegisterFile(const platform::Registers& registers, std::uint32_t knownRegisters) noexcept
        : values(registers), known(knownRegisters) {}

    bool has(std::uint64_t number) const noexcept {
        return number < platform::RegisterCount && (known >> number & 1) != 0;
    }
    /// Precondition: `number < RegisterCount`.
    std::uint64_t operator[](std::uint64_t number) const noexcept { return values[number]; }

    void set(std::uint64_t number, std::uint64_t value) noexcept {
        values[number] = value;
        known |= 1u << number;
    }
    void forget(std::uint64_t number) noexcept { known &= ~(1u << number); }
    void forgetAll() noexcept { known = 0; }

 private:
    platform::Registers values;
    std::uint32_t known = 0;
};

}  // namespace ThreadUtilities::cfi
