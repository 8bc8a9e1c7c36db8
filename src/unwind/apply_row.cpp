// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "unwind/apply_row.h"
#include <cstdint>

#include "unwind/expression.h"

namespace ThreadUtilities::cfi {
namespace {

using Kind = RegisterRule::Kind;

/// The rules of one row over the registers of one frame.
class Application {
 public:
    Application(const std::uint8_t* endOfTables, const RegisterFile& calleeRegisters,
                StackWords& wordReader) noexcept
        : tableEnd(endOfTables), callee(calleeRegisters), words(wordReader) {}

    StepResult computeCfa(const CfaRule& rule) noexcept {
        if (rule.isExpression) {
            return evaluate(rule.expression, nullptr, cfa);
        }
        if (!callee.has(rule.base)) {
            return StepResult::UnknownRegister;
        }
        cfa = callee[rule.base] + static_cast<std::uint64_t>(rule.offset);
        return StepResult::Made;
    }

    /// The caller's value; the register stays unknown where the rule copies one that is.
    StepResult recover(RegisterRule rule, std::uint64_t number, RegisterFile& caller) noexcept {
        std::uint64_t value = 0;
        switch (rule.kind()) {
            case Kind::SameValue:
                return StepResult::Made;
            case Kind::Undefined:
                caller.forget(number);
                return StepResult::Made;
            case Kind::InRegister:
                return copy(static_cast<std::uint64_t>(rule.value()), number, caller);
            case Kind::IsOffset:
                value = cfa + static_cast<std::uint64_t>(rule.value());
                break;
            case Kind::AtOffset:
                if (!words.read(cfa + static_cast<std::uint64_t>(rule.value()), value)) {
                    return StepResult::Unreadable;
                }
                break;
            case Kind::IsExpression:
            case Kind::AtExpression:
                if (const StepResult result = evaluate(rule.expression(), &cfa, value);
                    result != StepResult::Made) {
                    return result;
                }
                if (rule.kind() == Kind::AtExpression && !words.read(value, value)) {
                    return StepResult::Unreadable;
                }
                break;
        }
        caller.set(number, value);
        return StepResult::Made;
    }

    std::uint64_t cfa = 0;

 private:
    StepResult evaluate(const std::uint8_t* block, const std::uint64_t* initial,
                        std::uint64_t& result) noexcept {
        ByteCursor bytes(block, tableEnd);
        const ByteCursor operations = bytes.sub(bytes.uleb128());
        return evaluateExpression(operations, callee, words, initial, result);
    }

    StepResult copy(std::uint64_t source, std::uint64_t number, RegisterFile& caller) noexcept {
        if (source >= platform::RegisterCount) {
            return StepResult::Unreadable;
        }
        if (callee.has(source)) {
            caller.set(number, callee[source]);
        } else {
            caller.forget(number);
        }
        return StepResult::Made;
    }

    const std::uint8_t* const tableEnd;
    const RegisterFile& callee;
    StackWords& words;
};

}  // namespace

StepResult applyRow(const UnwindRow& row, std::uint64_t returnAddressColumn,
                    const std::uint8_t* tableEnd, RegisterFile& registers,
                    StackWords& words) noexcept {
    const RegisterRule returnRule = row.registers[returnAddressColumn];
    if (returnRule.kind() == Kind::Undefined) {
        return StepResult::EndOfStack;
    }
    if (returnRule.kind() == Kind::SameValue) {
        return StepResult::Unreadable;  // the caller cannot stand where the callee stands
    }
    Application application(tableEnd, registers, words);
    if (const StepResult result = application.computeCfa(row.cfa); result != StepResult::Made) {
        return result;
    }
    RegisterFile caller = registers;
    // Unless it has a rule of its own, the caller's stack pointer is the CFA.
    caller.set(platform::Rsp, application.cfa);
    for (std::uint64_t number = 0; number < platform::Rip; ++number) {
        if (const StepResult result = application.recover(row.registers[number], number, caller);
            result != StepResult::Made) {
            return result;
        }
    }
    if (const StepResult result = application.recover(returnRule, platform::Rip, caller);
        result != StepResult::Made) {
        return result;
    }
    // A rule may have declared them lost, or copied a register that is.
    if (!caller.has(platform::Rip) || !caller.has(platform::Rsp)) {
        return StepResult::UnknownRegister;
    }
    registers = caller;
    return StepResult::Made;
}

}  // namespace ThreadUtilities::cfi
