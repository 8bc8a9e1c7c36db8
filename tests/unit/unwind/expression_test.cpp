// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "unwind/expression.h"

#include <gtest/gtest.h>

#include <vector>

#include "scripted_platform/memory_script.h"

namespace ThreadUtilities::cfi {
namespace {

using Bytes = std::vector<std::uint8_t>;

class Expression : public testing::Test {
 protected:
    void SetUp() override {
        registers.set(platform::Rsp, 0x1000);
        registers.set(platform::Rbp, 0x2000);
        scripted::memory[0x1008] = scripted::bytesOf({0x1122334455667788, 99});
    }
    void TearDown() override { scripted::memory.clear(); }

    StepResult evaluate(const Bytes& operations) {
        StackWords words({});
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
