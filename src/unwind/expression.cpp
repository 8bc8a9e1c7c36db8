// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "unwind/expression.h"
#include <cstdint>

#include "unwind/dwarf.h"

namespace ThreadUtilities::cfi {
namespace {

/// One evaluation. A failed one keeps its first reason; pops then give 0 and pushes are dropped.
class Evaluation {
 public:
    Evaluation(ByteCursor operations, const RegisterFile& registerFile,
               StackWords& wordReader) noexcept
        : bytes(operations), registers(registerFile), words(wordReader) {}

    void push(std::uint64_t value) noexcept {
        if (depth == expressionStackSize) {
            fail(StepResult::Unreadable);
            return;
        }
        stack[depth++] = value;
    }

    StepResult run(std::uint64_t& result) noexcept {
        for (unsigned steps = 0; !bytes.atEnd() && failure == StepResult::Made; ++steps) {
            if (steps == maxExpressionSteps) {
                fail(StepResult::Unreadable);
                break;
            }
            perform(bytes.read<std::uint8_t>());
        }
        if (!bytes.ok()) {
            fail(StepResult::Unreadable);
        }
        result = pop();
        return failure;
    }

 private:
    void fail(StepResult reason) noexcept {
        if (failure == StepResult::Made) {
            failure = reason;
        }
    }

    std::uint64_t pop() noexcept {
        if (depth == 0) {
            fail(StepResult::Unreadable);
            return 0;
        }
        return stack[--depth];
    }

    /// The value `below` places under the topmost.
    void pick(std::uint64_t below) noexcept {
        if (below >= depth) {
            fail(StepResult::Unreadable);
            return;
        }
        push(stack[depth - 1 - below]);
    }

    void pushRegister(std::uint64_t number, std::int64_t offset) noexcept {
        if (!registers.has(number)) {
            fail(number < platform::RegisterCount ? StepResult::UnknownRegister
                                                  : StepResult::Unreadable);
            return;
        }
        push(registers[number] + static_cast<std::uint64_t>(offset));
    }

    void dereference(std::uint64_t address, unsigned size) noexcept {
        std::uint64_t word = 0;
        if (size == 0 || size > sizeof(word)) {
            fail(StepResult::Unreadable);
        } else if (!words.read(address, word)) {
            fail(StepResult::Unreadable);
        } else {
            push(word << (64 - 8 * size) >> (64 - 8 * size));
        }
    }

    void branch(bool taken) noexcept {
        const auto distance = bytes.read<std::int16_t>();
        if (taken) {
            // Wraps to beyond the end, which the cursor refuses, when it points before the start.
            bytes.seek(bytes.position() + static_cast<std::uint64_t>(std::int64_t{distance}));
        }
    }

    void rotate() noexcept {
        const std::uint64_t first = pop();
        const std::uint64_t second = pop();
        const std::uint64_t third = pop();
        push(first);
        push(third);
        push(second);
    }

    void swap() noexcept {
        const std::uint64_t first = pop();
        const std::uint64_t second = pop();
        push(first);
        push(second);
    }

    /// Operations on the two topmost values, the left one below the right one. Arithmetic wraps;
    /// `div`, `shra` and the comparisons take their operands as signed.
    void performBinary(Op operation) noexcept {
        const std::uint64_t right = pop();
        const std::uint64_t left = pop();
        const auto signedRight = static_cast<std::int64_t>(right);
        const auto signedLeft = static_cast<std::int64_t>(left);
        switch (operation) {
                // clang-format off
            case Op::And:   return push(left & right);
            case Op::Or:    return push(left | right);
            case Op::Xor:   return push(left ^ right);
            case Op::Plus:  return push(left + right);
            case Op::Minus: return push(left - right);
            case Op::Mul:   return push(left * right);
            case Op::Div:   return divide(signedLeft, signedRight);
            case Op::Mod:   return right == 0 ? fail(StepResult::Unreadable)
                                              : push(left % right);
            case Op::Shl:   return push(right < 64 ? left << right : 0);
            case Op::Shr:   return push(right < 64 ? left >> right : 0);
            case Op::Shra:  return push(static_cast<std::uint64_t>(
                                signedLeft >> (right < 63 ? right : 63)));
            case Op::Eq:    return push(signedLeft == signedRight);
            case Op::Ge:    return push(signedLeft >= signedRight);
            case Op::Gt:    return push(signedLeft > signedRight);
            case Op::Le:    return push(signedLeft <= signedRight);
            case Op::Lt:    return push(signedLeft < signedRight);
            case Op::Ne:    return push(signedLeft != signedRight);
            default:        return fail(StepResult::Unreadable);
                // clang-format on
        }
    }

    void divide(std::int64_t left, std::int64_t right) noexcept {
        if (right == 0) {
            fail(StepResult::Unreadable);
        } else if (right == -1) {  // the quotient of the lowest number does not fit
            push(0 - static_cast<std::uint64_t>(left));
        } else {
            push(static_cast<std::uint64_t>(left / right));
        }
    }

    template <class Number>
    void pushNumber() noexcept {
        push(static_cast<std::uint64_t>(std::int64_t{bytes.read<Number>()}));
    }

    void perform(std::uint8_t code) noexcept {
        if (code >= std::uint8_t(Op::Lit0) && code <= std::uint8_t(Op::Lit31)) {
            return push(code - std::uint8_t(Op::Lit0));
        }
        if (code >= std::uint8_t(Op::Reg0) && code <= std::uint8_t(Op::Reg31)) {
            return pushRegister(code - std::uint8_t(Op::Reg0), 0);
        }
        if (code >= std::uint8_t(Op::Breg0) && code <= std::uint8_t(Op::Breg31)) {
            return pushRegister(code - std::uint8_t(Op::Breg0), bytes.sleb128());
        }
        switch (const Op operation{code}) {
                // clang-format off
            case Op::Addr:
            case Op::Const8u:
            case Op::Const8s:    return push(bytes.read<std::uint64_t>());
            case Op::Const1u:    return pushNumber<std::uint8_t>();
            case Op::Const1s:    return pushNumber<std::int8_t>();
            case Op::Const2u:    return pushNumber<std::uint16_t>();
            case Op::Const2s:    return pushNumber<std::int16_t>();
            case Op::Const4u:    return pushNumber<std::uint32_t>();
            case Op::Const4s:    return pushNumber<std::int32_t>();
            case Op::Constu:     return push(bytes.uleb128());
            case Op::Consts:     return push(static_cast<std::uint64_t>(bytes.sleb128()));
            case Op::Deref:      return dereference(pop(), 8);
            case Op::DerefSize:  return dereference(pop(), bytes.read<std::uint8_t>());
            case Op::Dup:        return pick(0);
            case Op::Over:       return pick(1);
            case Op::Pick:       return pick(bytes.read<std::uint8_t>());
            case Op::Drop:       pop(); return;
            case Op::Swap:       return swap();
            case Op::Rot:        return rotate();
            case Op::Neg:        return push(0 - pop());
            case Op::Not:        return push(~pop());
            case Op::Abs:        return absolute(pop());
            case Op::PlusUconst: return push(pop() + bytes.uleb128());
            case Op::Bra:        return branch(pop() != 0);
            case Op::Skip:       return branch(true);
            case Op::Regx:       return pushRegister(bytes.uleb128(), 0);
            case Op::Bregx:      { const auto number = bytes.uleb128();
                                   return pushRegister(number, bytes.sleb128()); }
            case Op::Nop:        return;
            default:             return performBinary(operation);
                // clang-format on
        }
    }

    void absolute(std::uint64_t value) noexcept {
        push(static_cast<std::int64_t>(value) < 0 ? 0 - value : value);
    }

    ByteCursor bytes;
    const RegisterFile& registers;
    StackWords& words;
    StepResult failure = StepResult::Made;
    unsigned depth = 0;
    std::uint64_t stack[expressionStackSize];
};

}  // namespace

StepResult evaluateExpression(ByteCursor bytes, const RegisterFile& registers, StackWords& words,
                              const std::uint64_t* initial, std::uint64_t& result) noexcept {
    Evaluation evaluation(bytes, registers, words);
    if (initial != nullptr) {
        evaluation.push(*initial);
    }
    return evaluation.run(result);
}

}  // namespace ThreadUtilities::cfi
