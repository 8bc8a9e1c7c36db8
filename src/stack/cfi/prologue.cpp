// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "stack/cfi/prologue.h"
#include <cstdint>
#include <optional>

#include "stack/cfi/instruction.h"

namespace ThreadUtilities::cfi {
namespace {

constexpr unsigned stackPointer = 4;  // in the encoding of instructions
constexpr unsigned framePointer = 5;

/// What one instruction means for the two registers.
enum class Effect {
    None,
    MovesStack,  ///< by a constant number of bytes
    AlignsStack,
    SetsFrame,  ///< to the stack pointer plus a constant
    Branches,   ///< may go on elsewhere, or here
    Leaves,     ///< goes on elsewhere
    Unknown,    ///< changes one of them in another way
};

struct Meaning {
    Effect effect = Effect::None;
    std::int64_t bytes = 0;
};

bool isRegister(const Instruction& instruction, unsigned number) {
    return instruction.namesRegister() && instruction.rm() == number;
}

Meaning meaningOfArithmetic(const Instruction& instruction) {
    enum : unsigned { Add = 0, And = 4, Sub = 5, Compare = 7 };
    if (!isRegister(instruction, stackPointer)) {
        return {isRegister(instruction, framePointer) && instruction.operation() != Compare
                    ? Effect::Unknown
                    : Effect::None};
    }
    switch (instruction.operation()) {
        case Add:
            return {Effect::MovesStack, instruction.immediate};
        case Sub:
            return {Effect::MovesStack, -instruction.immediate};
        case And:
            return {Effect::AlignsStack, -instruction.immediate};
        case Compare:
            return {};
        default:
            return {Effect::Unknown};
    }
}

Meaning meaningOfGroup5(const Instruction& instruction) {
    switch (instruction.operation()) {
        case 2:  // call
            return {Effect::Branches};
        case 4:  // jmp
            return {Effect::Leaves};
        case 6:  // push
            return {Effect::MovesStack, -8};
        default:
            return {};
    }
}

Meaning meaningOfLoadAddress(const Instruction& instruction) {
    const bool fromStack = instruction.addressesStack();
    if (instruction.reg() == stackPointer) {
        return fromStack ? Meaning{Effect::MovesStack, instruction.displacement}
                         : Meaning{Effect::Unknown};
    }
    if (instruction.reg() == framePointer) {
        return fromStack ? Meaning{Effect::SetsFrame, instruction.displacement}
                         : Meaning{Effect::Unknown};
    }
    return {};
}

Meaning meaningOfMove(const Instruction& instruction) {
    const unsigned reg = instruction.reg();
    const unsigned target = instruction.is(0x89) ? instruction.rm() : reg;
    const unsigned source = instruction.is(0x89) ? reg : instruction.rm();
    if (instruction.is(0x89) && !instruction.namesRegister()) {
        return {};  // stores
    }
    if (target == framePointer) {
        return {instruction.namesRegister() && instruction.isWide() && source == stackPointer
                    ? Effect::SetsFrame
                    : Effect::Unknown};
    }
    return {target == stackPointer ? Effect::Unknown : Effect::None};
}

// Instructions whose result goes to the register that ModRM names last.
bool writesRm(const Instruction& instruction) {
    const std::uint8_t opcode = instruction.opcode;
    const bool isArithmetic = opcode < 0x38 && (opcode & 7) < 2;
    return isArithmetic || opcode == 0x87 || opcode == 0x8F || opcode == 0xC1 || opcode == 0xC7 ||
           opcode == 0xD1 || opcode == 0xD3 || opcode == 0xF7 || opcode == 0xFF;
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

bool isEither(unsigned number) {
    return number == stackPointer || number == framePointer;
}

Meaning meaningOfOther(const Instruction& instruction) {
    if (!instruction.hasModRm || instruction.isVector) {
        return {};
    }
    const bool changes = (instruction.map == Instruction::Map::OneByte && writesRm(instruction) &&
                          instruction.namesRegister() && isEither(instruction.rm())) ||
                         (writesReg(instruction) && isEither(instruction.reg()));
    return {changes ? Effect::Unknown : Effect::None};
}

Meaning meaningOfTwoByte(const Instruction& instruction) {
    const std::uint8_t opcode = instruction.opcode;
    if (opcode >= 0x80 && opcode <= 0x8F) {
        return {Effect::Branches};
    }
    if (opcode == 0x0B) {
        return {Effect::Leaves};
    }
    return meaningOfOther(instruction);
}

Meaning meaningOf(const Instruction& instruction) {
    if (instruction.isVector || instruction.map > Instruction::Map::TwoByte) {
        return {};
    }
    if (instruction.map == Instruction::Map::TwoByte) {
        return meaningOfTwoByte(instruction);
    }
    const std::uint8_t opcode = instruction.opcode;
    if (opcode >= 0x50 && opcode <= 0x57) {
        return {Effect::MovesStack, -8};
    }
    if (opcode >= 0x58 && opcode <= 0x5F) {
        return isEither((opcode & 7) | (instruction.rex & 1) << 3) ? Meaning{Effect::Unknown}
                                                                   : Meaning{Effect::MovesStack, 8};
    }
    if (opcode >= 0x70 && opcode <= 0x7F) {
        return {Effect::Branches};
    }
    if (opcode >= 0xB8 && opcode <= 0xBF) {
        return {isEither((opcode & 7) | (instruction.rex & 1) << 3) ? Effect::Unknown
                                                                    : Effect::None};
    }
    switch (opcode) {
        case 0x68:
        case 0x6A:
            return {Effect::MovesStack, -8};
        case 0x81:
        case 0x83:
            return meaningOfArithmetic(instruction);
        case 0x89:
        case 0x8B:
            return meaningOfMove(instruction);
        case 0x8D:
            return meaningOfLoadAddress(instruction);
        case 0xC2:
        case 0xC3:
        case 0xCC:
        case 0xE9:
        case 0xEB:
        case 0xF4:
            return {Effect::Leaves};
        case 0xC8:
        case 0xC9:
            return {Effect::Unknown};
        case 0xE0:
        case 0xE1:
        case 0xE2:
        case 0xE3:
        case 0xE8:
            return {Effect::Branches};
        case 0xFF:
            return meaningOfGroup5(instruction);
        default:
            return meaningOfOther(instruction);
    }
}

/// The two registers, in bytes below the stack pointer at the function's entry.
class PrologueState {
 public:
    /// False when this is no prologue that can be understood.
    bool apply(const Meaning& meaning) {
        switch (meaning.effect) {
            case Effect::None:
                return true;
            case Effect::MovesStack:
                depth_ -= meaning.bytes;
                return depth_ >= 0 && depth_ <= mostBytes;
            case Effect::AlignsStack:
                return align(meaning.bytes);
            case Effect::SetsFrame:
                frameDepth_ = depth_ - meaning.bytes;
                return slack_ == 0 && !frameIsSet_ && (frameIsSet_ = frameDepth_ >= 0);
            case Effect::Branches:
                depthAtBranch_ = depth_;
                return true;
            case Effect::Leaves:
                depth_ = depthAtBranch_;
                return true;
            case Effect::Unknown:
                break;
        }
        return false;
    }

    [[nodiscard]] bool frameIsSet() const { return frameIsSet_; }

    [[nodiscard]] std::optional<FramePointerPlace> place() const {
        if (!frameIsSet_ || depth_ < frameDepth_) {
            return std::nullopt;
        }
        return FramePointerPlace{static_cast<std::uint64_t>(depth_ - frameDepth_), slack_};
    }

 private:
    static constexpr std::int64_t mostBytes = 1 << 20;
    static constexpr std::int64_t mostAlignment = 4096;

    // An aligned stack pointer has been lowered by anything below the alignment. That stands
    // between it and a frame pointer which was set before. One that is set only afterwards does not
    // care: such code pushes a copy of its return address first, so that it lies above as always.
    bool align(std::int64_t alignment) {
        if (alignment < 16 || alignment > mostAlignment || (alignment & (alignment - 1)) != 0 ||
            slack_ != 0) {
            return false;
        }
        slack_ = frameIsSet_ ? static_cast<std::uint64_t>(alignment - 8) : 0;
        return true;
    }

    std::int64_t depth_ = 0;
    std::int64_t depthAtBranch_ = 0;
    std::int64_t frameDepth_ = 0;
    std::uint64_t slack_ = 0;
    bool frameIsSet_ = false;
};

}  // namespace

std::optional<FramePointerPlace> findFramePointer(ByteCursor code, std::uint64_t length) noexcept {
    PrologueState state;
    while (code.position() < length) {
        const std::optional<Instruction> instruction = readInstruction(code);
        if (!instruction) {
            return std::nullopt;
        }
        const Meaning meaning = meaningOf(*instruction);
        const bool branches =
            meaning.effect == Effect::Branches || meaning.effect == Effect::Leaves;
        if (branches && state.frameIsSet()) {
            break;  // the prologue's end
        }
        if (!state.apply(meaning)) {
            return std::nullopt;
        }
    }
    return state.place();
}

}  // namespace ThreadUtilities::cfi
