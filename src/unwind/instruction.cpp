// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "unwind/instruction.h"
#include <cstdint>
#include <optional>

namespace ThreadUtilities::cfi {
namespace {

using Map = Instruction::Map;

enum class Immediate : std::uint8_t { None, Byte, Word, Full, FullOrWide, Offset, Enter };

struct Form {
    bool hasModRm = false;
    Immediate immediate = Immediate::None;
};

struct Prefixes {
    bool operandSize = false;
    bool addressSize = false;
};

bool isPrefix(std::uint8_t byte, Prefixes& seen) noexcept {
    switch (byte) {
        case 0x66:
            seen.operandSize = true;
            return true;
        case 0x67:
            seen.addressSize = true;
            return true;
        case 0x26:
        case 0x2E:
        case 0x36:
        case 0x3E:
        case 0x64:
        case 0x65:
        case 0xF0:
        case 0xF2:
        case 0xF3:
            return true;
        default:
            return false;
    }
}

// The arithmetic rows of the map: four forms with ModRM, two with the accumulator, and two bytes
// that 64-bit code does not have or that are prefixes.
std::optional<Form> arithmeticForm(std::uint8_t opcode) noexcept {
    switch (opcode & 7) {
        case 4:
            return Form{false, Immediate::Byte};
        case 5:
            return Form{false, Immediate::Full};
        case 6:
        case 7:
            return std::nullopt;
        default:
            return Form{true, Immediate::None};
    }
}

std::optional<Form> highForm(std::uint8_t opcode) noexcept {
    switch (opcode) {
        case 0xC0:
        case 0xC1:
        case 0xC6:
            return Form{true, Immediate::Byte};
        case 0xC7:
            return Form{true, Immediate::Full};
        case 0xC2:
            return Form{false, Immediate::Word};
        case 0xC8:
            return Form{false, Immediate::Enter};
        case 0xCD:
            return Form{false, Immediate::Byte};
        case 0xC4:
        case 0xC5:
        case 0xCE:
        case 0xD4:
        case 0xD5:
        case 0xD6:
        case 0xEA:
            return std::nullopt;
        case 0xE8:
        case 0xE9:
            return Form{false, Immediate::Offset};
        case 0xF6:
        case 0xF7:
        case 0xFE:
        case 0xFF:
            return Form{true, Immediate::None};  // of F6 and F7, see below
        default:
            break;
    }
    if (opcode >= 0xD0 && opcode <= 0xDF) {
        return Form{opcode <= 0xD3 || opcode >= 0xD8, Immediate::None};
    }
    if ((opcode >= 0xE0 && opcode <= 0xE7) || opcode == 0xEB) {
        return Form{false, Immediate::Byte};
    }
    return Form{};
}

std::optional<Form> oneByteForm(std::uint8_t opcode) noexcept {
    if (opcode < 0x40) {
        return arithmeticForm(opcode);
    }
    if (opcode >= 0xC0) {
        return highForm(opcode);
    }
    if (opcode >= 0x70 && opcode <= 0x7F) {
        return Form{false, Immediate::Byte};
    }
    if (opcode >= 0xB0) {
        return Form{false, opcode < 0xB8 ? Immediate::Byte : Immediate::FullOrWide};
    }
    if (opcode >= 0x80 && opcode <= 0x8F) {
        const bool hasByte = opcode == 0x80 || opcode == 0x83;
        return opcode == 0x82 ? std::nullopt
                              : std::optional(Form{true, hasByte          ? Immediate::Byte
                                                         : opcode == 0x81 ? Immediate::Full
                                                                          : Immediate::None});
    }
    switch (opcode) {
        case 0x60:
        case 0x61:
        case 0x62:
        case 0x9A:
        case 0xA0:
        case 0xA1:
        case 0xA2:
        case 0xA3:
            return std::nullopt;
        case 0x63:
            return Form{true, Immediate::None};
        case 0x68:
        case 0xA9:
            return Form{false, Immediate::Full};
        case 0x69:
            return Form{true, Immediate::Full};
        case 0x6A:
        case 0xA8:
            return Form{false, Immediate::Byte};
        case 0x6B:
            return Form{true, Immediate::Byte};
        default:
            return Form{};
    }
}

Form twoByteForm(std::uint8_t opcode) noexcept {
    if (opcode >= 0x80 && opcode <= 0x8F) {
        return {false, Immediate::Offset};
    }
    const bool takesByte = (opcode >= 0x70 && opcode <= 0x73) || opcode == 0xA4 || opcode == 0xAC ||
                           opcode == 0xBA || opcode == 0xC2 || (opcode >= 0xC4 && opcode <= 0xC6);
    const bool standsAlone = (opcode >= 0x05 && opcode <= 0x09) || opcode == 0x0B ||
                             (opcode >= 0x30 && opcode <= 0x37) || opcode == 0x77 ||
                             (opcode >= 0xA0 && opcode <= 0xA2) ||
                             (opcode >= 0xA8 && opcode <= 0xAA) || opcode >= 0xC8;
    return {!standsAlone || opcode >= 0xD0, takesByte ? Immediate::Byte : Immediate::None};
}

std::optional<Form> formOf(const Instruction& instruction) noexcept {
    switch (instruction.map) {
        case Map::TwoByte:
            return twoByteForm(instruction.opcode);
        case Map::ThreeByte38:
            return Form{true, Immediate::None};
        case Map::ThreeByte3A:
            return Form{true, Immediate::Byte};
        case Map::OneByte:
            break;
    }
    return oneByteForm(instruction.opcode);
}

// The escape bytes and the vector prefixes up to and with the opcode.
bool readOpcode(ByteCursor& code, std::uint8_t first, Instruction& instruction) noexcept {
    constexpr std::uint8_t twoByteVex = 0xC5;
    constexpr std::uint8_t threeByteVex = 0xC4;
    constexpr std::uint8_t evex = 0x62;
    if (first == twoByteVex || first == threeByteVex || first == evex) {
        instruction.isVector = true;
        unsigned map = 1;
        if (first != twoByteVex) {
            map = code.read<std::uint8_t>() & (first == evex ? 7 : 0x1F);
            code.skip(first == evex ? 1 : 0);
        }
        code.skip(1);
        instruction.opcode = code.read<std::uint8_t>();
        if (map < 1 || map > 3) {
            return false;
        }
        instruction.map = static_cast<Map>(map);
        return code.ok();
    }
    if (first != 0x0F) {
        instruction.opcode = first;
        return true;
    }
    instruction.map = Map::TwoByte;
    instruction.opcode = code.read<std::uint8_t>();
    if (instruction.opcode == 0x38 || instruction.opcode == 0x3A) {
        instruction.map = instruction.opcode == 0x38 ? Map::ThreeByte38 : Map::ThreeByte3A;
        instruction.opcode = code.read<std::uint8_t>();
    }
    return code.ok();
}

void readModRm(ByteCursor& code, Instruction& instruction) noexcept {
    instruction.hasModRm = true;
    instruction.modRm = code.read<std::uint8_t>();
    const unsigned mode = instruction.modRm >> 6;
    const unsigned base = instruction.modRm & 7;
    if (mode == 3) {
        return;
    }
    if (base == 4) {
        instruction.sib = code.read<std::uint8_t>();
    }
    const bool hasNoBase = mode == 0 && (base == 5 || (base == 4 && (instruction.sib & 7) == 5));
    if (mode == 1) {
        instruction.displacement = code.read<std::int8_t>();
    } else if (mode == 2 || hasNoBase) {
        instruction.displacement = code.read<std::int32_t>();
    }
}

void readImmediate(ByteCursor& code, Immediate kind, const Prefixes& prefixes,
                   Instruction& instruction) noexcept {
    switch (kind) {
        case Immediate::None:
            return;
        case Immediate::Byte:
            instruction.immediate = code.read<std::int8_t>();
            return;
        case Immediate::Word:
            instruction.immediate = code.read<std::int16_t>();
            return;
        case Immediate::Enter:
            code.skip(3);
            return;
        case Immediate::Offset:
            instruction.immediate = code.read<std::int32_t>();
            return;
        case Immediate::FullOrWide:
            if (instruction.isWide()) {
                instruction.immediate = code.read<std::int64_t>();
                return;
            }
            [[fallthrough]];
        case Immediate::Full:
            instruction.immediate = prefixes.operandSize && !instruction.isWide()
                                        ? code.read<std::int16_t>()
                                        : code.read<std::int32_t>();
            return;
    }
}

}  // namespace

std::optional<Instruction> readInstruction(ByteCursor& code) noexcept {
    Instruction instruction;
    Prefixes prefixes;
    auto first = code.read<std::uint8_t>();
    while (code.ok() && isPrefix(first, prefixes)) {
        first = code.read<std::uint8_t>();
    }
    if ((first & 0xF0) == 0x40) {
        instruction.rex = first;
        first = code.read<std::uint8_t>();
    }
    std::optional<Form> form;
    if (code.ok() && readOpcode(code, first, instruction)) {
        form = formOf(instruction);
    }
    if (!form || prefixes.addressSize) {
        code.fail();
        return std::nullopt;
    }
    if (form->hasModRm) {
        readModRm(code, instruction);
    }
    const bool isTest =
        (instruction.is(0xF6) || instruction.is(0xF7)) && instruction.operation() < 2;
    if (isTest) {
        form->immediate = instruction.opcode == 0xF6 ? Immediate::Byte : Immediate::Full;
    }
    readImmediate(code, form->immediate, prefixes, instruction);
    return code.ok() ? std::optional(instruction) : std::nullopt;
}

}  // namespace ThreadUtilities::cfi
