// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <array>
#include <cstdint>

#include "platform/thread_context.h"

namespace ThreadUtilities::cfi {

using platform::RegisterCount;

/// Where the caller's value of one register is (DWARF 5, section 6.4.1).
class RegisterRule {
 public:
    enum class Kind : std::uint8_t {
        SameValue,     ///< also for registers that the tables do not mention
        Undefined,     ///< lost; for the return address: there is no caller
        AtOffset,      ///< in memory at the CFA plus `value`
        IsOffset,      ///< the CFA plus `value` itself
        InRegister,    ///< in register number `value`
        AtExpression,  ///< in memory where the expression says
        IsExpression,  ///< what the expression says
    };

    constexpr RegisterRule() noexcept = default;
    /// Precondition: `ruleValue` fits 56 bits with its sign, as `fits` tells.
    // NOLINTNEXTLINE(google-explicit-constructor): a kind alone is a rule
    constexpr RegisterRule(Kind ruleKind, std::int64_t ruleValue = 0) noexcept
        : packed(static_cast<std::int64_t>(static_cast<std::uint64_t>(ruleValue) << 8) |
                 static_cast<std::int64_t>(ruleKind)) {}

    static constexpr bool fits(std::int64_t ruleValue) noexcept {
        return ruleValue >= -(std::int64_t{1} << 55) && ruleValue < (std::int64_t{1} << 55);
    }

    constexpr Kind kind() const noexcept { return static_cast<Kind>(packed & 0xFF); }
    constexpr std::int64_t value() const noexcept { return packed >> 8; }
    /// For the two expression kinds: where the block (length, then operations) begins.
    const std::uint8_t* expression() const noexcept {
        return reinterpret_cast<const std::uint8_t*>(value());
    }

    constexpr bool operator==(const RegisterRule&) const noexcept = default;

 private:
    // One word, because a row and the rows that its program remembers stand on the stack of the
    // thread that is walked.
    std::int64_t packed = 0;
};

/// How the CFA (canonical frame address), the stack pointer before the call, is computed.
struct CfaRule {
    bool isExpression = false;
    std::uint8_t base = platform::Rsp;
    std::int64_t offset = 0;
    const std::uint8_t* expression = nullptr;
};

/// What the tables say of one code address: how to get from the registers there to those of the
/// caller.
struct UnwindRow {
    CfaRule cfa;
    std::array<RegisterRule, RegisterCount> registers;
};

}  // namespace ThreadUtilities::cfi
