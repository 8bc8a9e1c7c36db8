// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "unwind/cfa_program.h"

#include <gtest/gtest.h>

#include <vector>

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

}  // namespace
}  // namespace ThreadUtilities::cfi
