// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "unwind/stack_effect.h"
#include <cstdint>

#include "unwind/instruction.h"

namespace ThreadUtilities::cfi {
namespace {

using Kind = StackEffect::Kind;

constexpr unsigned stackPointer = 4;  // in the encoding of instructions
constexpr unsigned framePointer = 5;

bool isRegister(const Instruction& instruction, unsigned number) {
    return instruction.namesRegister() && instruction.rm() == number;
}

StackEffect effectOfArithmetic(const Instruction& instruction) {
    enum : unsigned { Add = 0, And = 4, Sub = 5, Compare = 7 };
    if (!isRegister(instruction, stackPointer)) {
        return {isRegister(instruction, framePointer) && instruction.operation() != Compare
                    ? Kind::ChangesFrame
                    : Kind::None};
    }
    switch (instruction.operation()) {
        case Add:
            return {Kind::MovesStack, instruction.immediate};
        case Sub:
            return {Kind::MovesStack, -instruction.immediate};
        case And:
            return {Kind::AlignsStack, -instruction.immediate};
        case Compare:
            return {};
        default:
            return {Kind::Unknown};
    }
}

StackEffect effectOfGroup5(const Instruction& instruction) {
    switch (instruction.operation()) {
        case 2:  // call
            return {Kind::Branches};
        case 4:  // jmp
            return {Kind::Leaves};
        case 6:  // push
            return {Kind::MovesStack, -8};
        default:
            return {};
    }
}

StackEffect effectOfLoadAddress(const Instruction& instruction) {
    const bool fromStack = instruction.addressesStack();
    if (instruction.reg() == stackPointer) {
        return fromStack ? StackEffect{Kind::MovesStack, instruction.displacement}
                         : StackEffect{Kind::Unknown};
    }
    if (instruction.reg() == framePointer) {
        return fromStack ? StackEffect{Kind::SetsFrame, instruction.displacement}
                         : StackEffect{Kind::ChangesFrame};
    }
    return {};
}

StackEffect effectOfMove(const Instruction& instruction) {
    const unsigned reg = instruction.reg();
    const unsigned target = instruction.is(0x89) ? instruction.rm() : reg;
    const unsigned source = instruction.is(0x89) ? reg : instruction.rm();
    if (instruction.is(0x89) && !instruction.namesRegister()) {
        return {};  // stores
    }
    if (target == framePointer) {
        return {instruction.namesRegister() && instruction.isWide() && source == stackPointer
                    ? Kind::SetsFrame
                    : Kind::ChangesFrame};
    }
    return {target == stackPointer ? Kind::Unknown : Kind::None};
}

// Instructions whose result goes to the register that ModRM names last.
bool writesRm(const Instruction& instruction) {
    const std::uint8_t opcode = instruction.opcode;
    const bool isArithmetic = opcode < 0x38 && (opcode & 7) < 2;
    return isArithmetic || opcode == 0x87 || opcode == 0xC1 || opcode == 0xC7 || opcode == 0xD1 ||
           opcode == 0xD3 || opcode == 0xF7 || opcode == 0xFF;
}

// Instructions whose result goes to the register of ModRM's middle field.
bool writesReg(const Instruction& instruction) {
    const std::uint8_t opcode = instruction.opcode;
    if (instruction.map == Instruction::Map::TwoByte) {
        const bool isExtension =
            opcode == 0xB6 || opcode == 0xB7 || opcode == 0xBE || opcode == 0xBF || opcode == 0xAF;
        return isExtension || (opcode >= 0x40 && opcode < 0x50);
    }
    return (opcode < 0x38 && ((opcode & 7) == 2 || (opcode & 7) == 3)) || opcode == 0x63 ||
           opcode == 0x69 || opcode == 0x6B || opcode == 0x87;
}

StackEffect effectOfChange(unsigned number) {
    if (number == stackPointer) {
        return {Kind::Unknown};
    }
    return {number == framePointer ? Kind::ChangesFrame : Kind::None};
}

StackEffect effectOfOther(const Instruction& instruction) {
    if (!instruction.hasModRm || instruction.isVector) {
        return {};
    }
    StackEffect effect;
    if (instruction.map == Instruction::Map::OneByte && writesRm(instruction) &&
        instruction.namesRegister()) {
        effect = effectOfChange(instruction.rm());
    }
    if (effect.kind != Kind::Unknown && writesReg(instruction)) {
        const StackEffect other = effectOfChange(instruction.reg());
        effect = other.kind != Kind::None ? other : effect;
    }
    return effect;
}

StackEffect effectOfTwoByte(const Instruction& instruction) {
    const std::uint8_t opcode = instruction.opcode;
    if (opcode >= 0x80 && opcode <= 0x8F) {
        return {Kind::Branches};
    }
    switch (opcode) {
        case 0x0B:
            return {Kind::Leaves};
        case 0xA0:  // push and pop of segment registers
        case 0xA8:
            return {Kind::MovesStack, -8};
        case 0xA1:
        case 0xA9:
            return {Kind::MovesStack, 8};
        default:
            break;
    }
    return effectOfOther(instruction);
}

}  // namespace

StackEffect stackEffectOf(const Instruction& instruction) noexcept {
    if (instruction.isVector || instruction.map > Instruction::Map::TwoByte) {
        return {};
    }
    if (instruction.map == Instruction::Map::TwoByte) {
        return effectOfTwoByte(instruction);
    }
    const std::uint8_t opcode = instruction.opcode;
    const unsigned number = (opcode & 7) | (instruction.rex & 1) << 3;
    if (opcode >= 0x50 && opcode <= 0x57) {
        return {number == framePointer ? Kind::PushesFrame : Kind::MovesStack, -8};
    }
    if (opcode >= 0x58 && opcode <= 0x5F) {
        return number == stackPointer
                   ? StackEffect{Kind::Unknown}
                   : StackEffect{number == framePointer ? Kind::PopsFrame : Kind::MovesStack, 8};
    }
    if (opcode >= 0x70 && opcode <= 0x7F) {
        return {Kind::Branches};
    }
    if (opcode >= 0xB8 && opcode <= 0xBF) {
        return effectOfChange(number);
    }
    switch (opcode) {
        case 0x68:
        case 0x6A:
        case 0x9C:
            return {Kind::MovesStack, -8};
        case 0x9D:
            return {Kind::MovesStack, 8};
        case 0x81:
        case 0x83:
            return effectOfArithmetic(instruction);
        case 0x89:
        case 0x8B:
            return effectOfMove(instruction);
        case 0x8D:
            return effectOfLoadAddress(instruction);
        case 0x8F:
            return instruction.namesRegister() ? StackEffect{Kind::Unknown}
                                               : StackEffect{Kind::MovesStack, 8};
        case 0xC2:
        case 0xC3:
        case 0xCC:
        case 0xE9:
        case 0xEB:
        case 0xF4:
            return {Kind::Leaves};
        case 0xC8:
        case 0xC9:
            return {Kind::Unknown};
        case 0xE0:
        case 0xE1:
        case 0xE2:
        case 0xE3:
        case 0xE8:
            return {Kind::Branches};
        case 0xFF:
            return effectOfGroup5(instruction);
        default:
            return effectOfOther(instruction);
    }
}

}  // namespace ThreadUtilities::cfi
