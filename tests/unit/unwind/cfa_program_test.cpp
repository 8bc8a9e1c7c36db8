// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>

#include <vector>

#include "scripted_platform/script.h"
#include "unwind/cfa_program.h"
#include "unwind/compiled_rule.h"
#include "unwind/expression.h"
#include "unwind/own_space.h"

namespace ThreadUtilities::cfi {
namespace {

using Kind = RegisterRule::Kind;
using Bytes = std::vector<std::uint8_t>;

/// A function at 0x1000 of 0x100 bytes, with the usual factors of 1 and -8.
class CfaProgram : public testing::Test {
 protected:
    bool run(const Bytes& own) {
        program = own;
        Fde fde;
        fde.codeBegin = 0x1000;
        fde.codeEnd = 0x1100;
        fde.dataAlignment = -8;
        fde.returnAddressColumn = platform::Rip;
        fde.initialInstructions = ByteCursor(cieInstructions.data(), cieInstructions.size());
        fde.instructions = ByteCursor(program.data(), program.size());
        return rowAt(fde, 0x10FF, row);
    }

    RegisterRule rule(int number) const { return row.registers[number]; }

    // def_cfa rsp+8; rip at -8
    Bytes cieInstructions = {0x0C, 7, 8, 0x90, 1};
    Bytes program;
    UnwindRow row;
};

// Whole libraries are compared elsewhere; compilers write few of these.
TEST_F(CfaProgram, KnowsEveryInstruction) {
    struct Case {
        Bytes program;
        int number;
        RegisterRule expected;
    };
    const Case cases[] = {
        {{0x05, 3, 3}, platform::Rbx, {Kind::AtOffset, -24}},
        {{0x11, 3, 0x7E}, platform::Rbx, {Kind::AtOffset, 16}},
        {{0x2F, 3, 2}, platform::Rbx, {Kind::AtOffset, 16}},
        {{0x14, 3, 2}, platform::Rbx, {Kind::IsOffset, -16}},
        {{0x15, 3, 0x7E}, platform::Rbx, {Kind::IsOffset, 16}},
        {{0x07, 3}, platform::Rbx, {Kind::Undefined}},
        {{0x83, 3, 0x08, 3}, platform::Rbx, {Kind::SameValue}},
        {{0x09, 3, 12}, platform::Rbx, {Kind::InRegister, 12}},
        {{0x83, 3, 0xC3}, platform::Rbx, {Kind::SameValue}},
        {{0x07, 16, 0x06, 16}, platform::Rip, {Kind::AtOffset, -8}},
        {{0x83, 3, 0x0A, 0x83, 4, 0x0B}, platform::Rbx, {Kind::AtOffset, -24}},
        {{0x0A, 0x83, 3, 0x0A, 0x83, 4, 0x0B}, platform::Rbx, {Kind::AtOffset, -24}},
        {{0x2E, 0x20, 0x00, 0x83, 3}, platform::Rbx, {Kind::AtOffset, -24}},
        // A vector register, of which nothing is kept.
        {{0x05, 40, 3, 0x83, 3}, platform::Rbx, {Kind::AtOffset, -24}},
    };
    for (const Case& tested : cases) {
        ASSERT_TRUE(run(tested.program)) << testing::PrintToString(tested.program);
        EXPECT_EQ(rule(tested.number), tested.expected) << testing::PrintToString(tested.program);
    }
}

TEST_F(CfaProgram, RemembersTheCfaAsWell) {
    ASSERT_TRUE(run({0x0A, 0x0C, 6, 16, 0x0B}));
    EXPECT_EQ(row.cfa.base, platform::Rsp);
    EXPECT_EQ(row.cfa.offset, 8);
    ASSERT_TRUE(run({0x12, 6, 0x7E}));
    EXPECT_EQ(row.cfa.base, platform::Rbp);
    EXPECT_EQ(row.cfa.offset, 16);
    ASSERT_TRUE(run({0x13, 0x7D}));
    EXPECT_EQ(row.cfa.offset, 24);
}

// What has no rule is left to the tables.
TEST_F(CfaProgram, BecomesARuleWhereItsRowHasTheUsualShape) {
    struct Case {
        Bytes program;
        bool hasRule;
        bool usesFramePointer = false;
        std::uint64_t offset = 0;
        std::uint64_t saved = 0;  ///< below the CFA; 0 where it is not saved
    };
    const Case cases[] = {
        {{0x0E, 32, 0x83, 4}, true, false, 32},
        {{0x0E, 16, 0x86, 2}, true, false, 16, 16},
        {{0x0C, 6, 16, 0x86, 2}, true, true, 16, 16},
        {{0x0E, 0xF0, 0xFF, 0x3F}, true, false, 0xFFFF0},
        {{0x0E, 0x80, 0x80, 0x40}, false},  // too large
        {{0x0E, 0x80, 0x80, 0x04, 0x86, 0xFF, 0x1F}, true, false, 0x10000, 0x7FF8},
        {{0x0E, 0x80, 0x80, 0x04, 0x86, 0x80, 0x20}, false},  // too far off
        {{0x0E, 16, 0x86, 3}, false},                         // saved below the stack pointer
        {{0x0E, 16, 0x14, 6, 2}, false},                      // the register is that place
        {{0x0E, 12}, false},
        {{0x0E, 0}, false},
        {{0x0C, 3, 16}, false},        // from rbx
        {{0x0F, 2, 0x77, 16}, false},  // an expression
        {{0x90, 2}, false},            // the return address elsewhere
        {{0x0E, 32, 0x87, 2}, false},  // the stack pointer saved
    };
    for (const Case& tested : cases) {
        SCOPED_TRACE(testing::PrintToString(tested.program));
        ASSERT_TRUE(run(tested.program));
        const CompiledRule found = CompiledRule::of(row, platform::Rip);
        ASSERT_EQ(static_cast<bool>(found), tested.hasRule);
        if (found) {
            EXPECT_FALSE(found.isNone());
            EXPECT_EQ(found.usesFramePointer(), tested.usesFramePointer);
            EXPECT_EQ(found.cfaOffset(), tested.offset);
            EXPECT_EQ(found.savesFramePointer() ? found.framePointerDistance() : 0, tested.saved);
        }
    }
    ASSERT_TRUE(run({0x07, 16}));
    EXPECT_FALSE(CompiledRule::of(row, platform::Rip).hasCaller());
}

class Expression : public testing::Test {
 protected:
    void SetUp() override {
        registers.set(platform::Rsp, 0x1000);
        registers.set(platform::Rbp, 0x2000);
        scripted::memory[0x1008] = scripted::bytesOf({0x1122334455667788, 99});
    }
    void TearDown() override { scripted::memory.clear(); }

    StepResult evaluate(const Bytes& operations) {
        StackWords words(ownSpace, {});
        const std::uint64_t initial = 5;
        return evaluateExpression(ByteCursor(operations.data(), operations.size()), registers,
                                  words, &initial, value);
    }

    RegisterFile registers;
    std::uint64_t value = 0;
};

TEST_F(Expression, KnowsEveryOperation) {
    struct Case {
        Bytes operations;
        std::uint64_t value;
    };
    const std::uint64_t minus3 = 0 - std::uint64_t{3};
    const Case cases[] = {
        {{}, 5},  // what was pushed before
        {{0x03, 1, 2, 3, 4, 5, 6, 7, 8}, 0x0807060504030201},
        {{0x08, 0xFD}, 0xFD},
        {{0x09, 0xFD}, minus3},
        {{0x0A, 0xFD, 0xFF}, 0xFFFD},
        {{0x0B, 0xFD, 0xFF}, minus3},
        {{0x0C, 0xFD, 0xFF, 0xFF, 0xFF}, 0xFFFFFFFD},
        {{0x0D, 0xFD, 0xFF, 0xFF, 0xFF}, minus3},
        {{0x0E, 1, 0, 0, 0, 0, 0, 0, 0x80}, 0x8000000000000001},
        {{0x0F, 1, 0, 0, 0, 0, 0, 0, 0x80}, 0x8000000000000001},
        {{0x10, 0x80, 0x01}, 128},
        {{0x11, 0x7D}, minus3},
        {{0x30}, 0},
        {{0x4F}, 31},
        {{0x77, 8}, 0x1008},        // breg7 (rsp)
        {{0x76, 0x78}, 0x1FF8},     // breg6 (rbp) - 8
        {{0x92, 7, 0x10}, 0x1010},  // bregx
        {{0x57}, 0x1000},           // reg7
        {{0x90, 6}, 0x2000},        // regx
        {{0x77, 8, 0x06}, 0x1122334455667788},
        {{0x77, 8, 0x94, 2}, 0x7788},
        {{0x31, 0x12, 0x22}, 2},                           // dup
        {{0x31, 0x32, 0x13}, 1},                           // drop
        {{0x31, 0x32, 0x14}, 1},                           // over
        {{0x31, 0x32, 0x33, 0x15, 2}, 1},                  // pick
        {{0x31, 0x32, 0x16, 0x1C}, 1},                     // swap, minus
        {{0x31, 0x32, 0x33, 0x17}, 2},                     // rot
        {{0x09, 0xFD, 0x19}, 3},                           // abs
        {{0x36, 0x33, 0x1A}, 2},                           // and
        {{0x09, 0xF8, 0x33, 0x1B}, 0 - std::uint64_t{2}},  // div, towards 0
        {{0x36, 0x34, 0x1D}, 2},                           // mod
        {{0x36, 0x34, 0x1E}, 24},                          // mul
        {{0x33, 0x1F}, minus3},                            // neg
        {{0x32, 0x20}, minus3},                            // not
        {{0x36, 0x33, 0x21}, 7},                           // or
        {{0x33, 0x23, 0x80, 1}, 131},                      // plus_uconst
        {{0x33, 0x34, 0x24}, 48},                          // shl
        {{0x33, 0x08, 64, 0x24}, 0},
        {{0x4F, 0x32, 0x25}, 7},                           // shr
        {{0x09, 0xF0, 0x32, 0x26}, 0 - std::uint64_t{4}},  // shra
        {{0x09, 0xF0, 0x08, 99, 0x26}, ~std::uint64_t{0}},
        {{0x36, 0x33, 0x27}, 5},              // xor
        {{0x32, 0x32, 0x29}, 1},              // eq
        {{0x09, 0xFD, 0x32, 0x2A}, 0},        // ge, signed
        {{0x32, 0x09, 0xFD, 0x2B}, 1},        // gt
        {{0x09, 0xFD, 0x32, 0x2C}, 1},        // le
        {{0x32, 0x09, 0xFD, 0x2D}, 0},        // lt
        {{0x32, 0x31, 0x2E}, 1},              // ne
        {{0x33, 0x2F, 1, 0, 0x34}, 3},        // skip over one
        {{0x33, 0x30, 0x28, 1, 0, 0x34}, 4},  // bra, not taken
        {{0x33, 0x31, 0x28, 1, 0, 0x34}, 3},  // bra, taken
        {{0x96, 0x33, 0x96}, 3},              // nop
        // The CFA of a procedure linkage entry: rsp + 8 + ((rip & 15) >= 11) * 8
        {{0x77, 8, 0x3F, 0x3F, 0x1A, 0x3B, 0x2A, 0x33, 0x24, 0x22}, 0x1010},
        // 5 counted down to 0 by a loop
        {{0x31, 0x1C, 0x12, 0x28, 0xFA, 0xFF}, 0},
    };
    for (const Case& tested : cases) {
        EXPECT_EQ(evaluate(tested.operations), StepResult::Made)
            << testing::PrintToString(tested.operations);
        EXPECT_EQ(value, tested.value) << testing::PrintToString(tested.operations);
    }
}

TEST_F(Expression, SaysWhyItCannotBeEvaluated) {
    struct Case {
        Bytes operations;
        StepResult reason;
    };
    const Bytes tooMuch(expressionStackSize, 0x30);
    const Case cases[] = {
        {{0x13, 0x13}, StepResult::Unreadable},        // nothing to drop
        {{0x15, 1}, StepResult::Unreadable},           // nothing there to pick
        {tooMuch, StepResult::Unreadable},             // on top of the initial value
        {{0xFF}, StepResult::Unreadable},              // no such operation
        {{0x30, 0x1B}, StepResult::Unreadable},        // division by 0
        {{0x2F, 9, 0}, StepResult::Unreadable},        // branch beyond the end
        {{0x2F, 0xF0, 0xFF}, StepResult::Unreadable},  // branch before the start
        {{0x2F, 0xFD, 0xFF}, StepResult::Unreadable},  // endless loop
        {{0x77, 0, 0x06}, StepResult::Unreadable},     // memory that is not there
        {{0x92, 40, 0}, StepResult::Unreadable},       // no such register
        {{0x73, 0}, StepResult::UnknownRegister},      // rbx
    };
    for (const Case& tested : cases) {
        EXPECT_EQ(evaluate(tested.operations), tested.reason)
            << testing::PrintToString(tested.operations);
    }
    // The quotient that does not fit.
    ASSERT_EQ(evaluate({0x0E, 0, 0, 0, 0, 0, 0, 0, 0x80, 0x09, 0xFF, 0x1B}), StepResult::Made);
    EXPECT_EQ(value, std::uint64_t{1} << 63);
}

}  // namespace
}  // namespace ThreadUtilities::cfi
