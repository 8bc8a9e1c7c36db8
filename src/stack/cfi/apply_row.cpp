#include "stack/cfi/apply_row.h"

#include "stack/cfi/expression.h"

namespace ThreadUtilities::cfi {
namespace {

using Kind = RegisterRule::Kind;

/// The rules of one row over the registers of one frame.
class Application {
 public:
    Application(const std::uint8_t* endOfTables, const RegisterFile& calleeRegisters,
                StackWords& wordReader) noexcept
        : tableEnd(endOfTables), callee(calleeRegisters), words(wordReader) {}

    std::optional<WalkEnd> computeFrameAddress(const FrameAddressRule& rule) noexcept {
        if (rule.isExpression) {
            return evaluate(rule.expression, nullptr, frameAddress);
        }
        if (!callee.has(rule.base)) {
            return WalkEnd::UnknownRegister;
        }
        frameAddress = callee[rule.base] + static_cast<std::uint64_t>(rule.offset);
        return std::nullopt;
    }

    /// The caller's value; the register stays unknown where the rule copies one that is.
    std::optional<WalkEnd> recover(RegisterRule rule, std::uint64_t number,
                                   RegisterFile& caller) noexcept {
        std::uint64_t value = 0;
        switch (rule.kind()) {
            case Kind::SameValue:
                return std::nullopt;
            case Kind::Undefined:
                caller.forget(number);
                return std::nullopt;
            case Kind::InRegister:
                return copy(static_cast<std::uint64_t>(rule.value()), number, caller);
            case Kind::IsOffset:
                value = frameAddress + static_cast<std::uint64_t>(rule.value());
                break;
            case Kind::AtOffset:
                if (!words.read(frameAddress + static_cast<std::uint64_t>(rule.value()), value)) {
                    return WalkEnd::Unreadable;
                }
                break;
            case Kind::IsExpression:
            case Kind::AtExpression:
                if (const auto end = evaluate(rule.expression(), &frameAddress, value)) {
                    return end;
                }
                if (rule.kind() == Kind::AtExpression && !words.read(value, value)) {
                    return WalkEnd::Unreadable;
                }
                break;
        }
        caller.set(number, value);
        return std::nullopt;
    }

    std::uint64_t frameAddress = 0;

 private:
    std::optional<WalkEnd> evaluate(const std::uint8_t* block, const std::uint64_t* initial,
                                    std::uint64_t& result) noexcept {
        ByteCursor bytes(block, tableEnd);
        const ByteCursor operations = bytes.sub(bytes.uleb128());
        return evaluateExpression(operations, callee, words, initial, result);
    }

    std::optional<WalkEnd> copy(std::uint64_t source, std::uint64_t number,
                                RegisterFile& caller) noexcept {
        if (source >= platform::RegisterCount) {
            return WalkEnd::Unreadable;
        }
        if (callee.has(source)) {
            caller.set(number, callee[source]);
        } else {
            caller.forget(number);
        }
        return std::nullopt;
    }

    const std::uint8_t* const tableEnd;
    const RegisterFile& callee;
    StackWords& words;
};

}  // namespace

std::optional<WalkEnd> applyRow(const UnwindRow& row, std::uint64_t returnAddressColumn,
                                const std::uint8_t* tableEnd, RegisterFile& registers,
                                StackWords& words) noexcept {
    const RegisterRule returnRule = row.registers[returnAddressColumn];
    if (returnRule.kind() == Kind::Undefined) {
        return WalkEnd::EndOfStack;
    }
    if (returnRule.kind() == Kind::SameValue) {
        return WalkEnd::Unreadable;  // the caller cannot stand where the callee stands
    }
    Application application(tableEnd, registers, words);
    if (const auto end = application.computeFrameAddress(row.frameAddress)) {
        return end;
    }
    RegisterFile caller = registers;
    // Unless it has a rule of its own, the caller's stack pointer is the frame address.
    caller.set(platform::Rsp, application.frameAddress);
    for (std::uint64_t number = 0; number < platform::Rip; ++number) {
        if (const auto end = application.recover(row.registers[number], number, caller)) {
            return end;
        }
    }
    if (const auto end = application.recover(returnRule, platform::Rip, caller)) {
        return end;
    }
    if (!caller.has(platform::Rip)) {
        return WalkEnd::UnknownRegister;
    }
    registers = caller;
    return std::nullopt;
}

}  // namespace ThreadUtilities::cfi
