// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "unwind/known_paths.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "scripted_platform/script.h"
#include "unwind/compiled_rule.h"
#include "unwind/known_crossings.h"
#include "unwind/own_space.h"
#include "unwind/predicted_step.h"
#include "unwind/walk_state.h"

namespace ThreadUtilities::cfi {
namespace {

CompiledRule ruleOf(std::uint8_t base, std::int64_t offset, std::int64_t saved) {
    UnwindRow row;
    row.cfa = {false, base, offset, nullptr};
    row.registers[platform::Rip] = {RegisterRule::Kind::AtOffset, -8};
    if (saved != 0) {
        row.registers[platform::Rbp] = {RegisterRule::Kind::AtOffset, saved};
    }
    return CompiledRule::of(row, platform::Rip);
}

Position at(std::uint64_t address, std::uint64_t stackPointer, std::uint64_t framePointer) {
    Position position;
    position.instructionPointer = address;
    position.stackPointer = stackPointer;
    position.framePointer = framePointer;
    return position;
}

/// Three frames of a stack whose words lie apart from their addresses: two that are addressed by
/// the stack pointer, the second of which saved the frame pointer, and one by the frame pointer.
class KnownPath : public testing::Test {
 protected:
    static constexpr std::uint64_t stackBegin = 0x10000;
    static constexpr std::uint64_t start = 0x401000;

    std::uint64_t shift() const {
        return reinterpret_cast<std::uint64_t>(words.data()) - stackBegin;
    }

    void SetUp() override {
        KnownPaths::Steps steps;
        steps.begin = start;
        steps.stackPointer = stackBegin;
        const Position first = at(start, stackBegin, 7);
        const Position second = at(0x402000, stackBegin + 0x10, 7);
        const Position third = at(0x403000, stackBegin + 0x30, stackBegin + 0x40);
        const Position end = at(0x404000, stackBegin + 0x50, stackBegin + 0x40);
        ASSERT_TRUE(KnownPaths::add(steps, ruleOf(platform::Rsp, 0x10, 0), first, second));
        ASSERT_TRUE(KnownPaths::add(steps, ruleOf(platform::Rsp, 0x20, -16), second, third));
        ASSERT_TRUE(KnownPaths::add(steps, ruleOf(platform::Rbp, 0x10, 0), third, end));
        paths->learn(steps);
    }

    /// Follows the path, and returns where that leads.
    Position follow(std::size_t readableWords, std::vector<unsigned long long> expected) {
        Position position = at(start, stackBegin, 7);
        unsigned long long frames[KnownPaths::length] = {};
        unsigned long long* next = frames;
        const auto outcome = paths->follow(stackBegin + 8 * readableWords, shift(), position, next);
        EXPECT_EQ(outcome == KnownPaths::Outcome::Followed, !expected.empty());
        EXPECT_EQ(std::vector<unsigned long long>(frames, next), expected);
        EXPECT_EQ(*next, 0) << "nothing is stored behind what counts";
        return position;
    }

    std::unique_ptr<KnownPaths> paths = std::make_unique<KnownPaths>();
    std::vector<std::uint64_t> words{1,        0x402000, 2, 3, stackBegin + 0x40,
                                     0x403000, 4,        5, 9, 0x404000};
};

TEST_F(KnownPath, IsFollowedAsFarAsTheStackAgrees) {
    const Position whole = follow(10, {start, 0x402000, 0x403000});
    EXPECT_EQ(whole.instructionPointer, 0x404000);
    EXPECT_EQ(whole.stackPointer, stackBegin + 0x50);
    EXPECT_EQ(whole.framePointer, stackBegin + 0x40);

    words[9] = 0x405000;  // another caller; the frame pointer is what the second frame saved
    const Position part = follow(10, {start, 0x402000});
    EXPECT_EQ(part.instructionPointer, 0x403000);
    EXPECT_EQ(part.stackPointer, stackBegin + 0x30);
    EXPECT_EQ(part.framePointer, stackBegin + 0x40);

    words[1] = 0x405000;
    EXPECT_EQ(follow(10, {}).framePointer, 7);
}

// A frame of variable size, or a damaged chain: the return address at the old place is a stale one.
TEST_F(KnownPath, EndsWhereTheFramePointerIsAnotherOne) {
    words[4] += 8;
    EXPECT_EQ(follow(10, {start, 0x402000}).framePointer, stackBegin + 0x48);
}

TEST_F(KnownPath, EndsWhereTheStackIsNotReadable) {
    follow(9, {start, 0x402000});
    follow(5, {start});
    follow(1, {});
    words.resize(2);  // what lies beyond is read by nobody
    words.shrink_to_fit();
    follow(2, {start});
}

TEST_F(KnownPath, LeadsNoFartherThanAReturnAddressOfZero) {
    paths = std::make_unique<KnownPaths>();
    KnownPaths::Steps steps;
    steps.begin = start;
    steps.stackPointer = stackBegin;
    ASSERT_TRUE(KnownPaths::add(steps, ruleOf(platform::Rsp, 0x10, 0), at(start, stackBegin, 7),
                                at(0, stackBegin + 0x10, 7)));
    paths->learn(steps);
    words.assign(10, 0);
    EXPECT_EQ(follow(10, {start}).instructionPointer, 0);

    Position zero = at(0, stackBegin, 7);
    unsigned long long frames[KnownPaths::length] = {};
    unsigned long long* next = frames;
    EXPECT_EQ(paths->follow(stackBegin + 80, shift(), zero, next), KnownPaths::Outcome::Unknown);
}

TEST_F(KnownPath, StaysAsItIsOnceItIsThere) {
    KnownPaths::Steps other;
    other.begin = start;
    other.stackPointer = stackBegin;
    paths->learn(other);
    follow(10, {start, 0x402000, 0x403000});
}

TEST(KnownCrossing, IsBelievedByTheSameStackPointerUntilAPageIsProtected) {
    constexpr std::uint64_t page = 0x7000'0000;
    constexpr std::uint64_t next = page + 2 * platform::memoryPageSize;
    constexpr std::uint64_t address = 0x401000;
    scripted::memory = {{page, std::vector<std::uint8_t>(next - page)}};
    const auto cache = std::make_unique<RuleCache>();
    const auto crossings = std::make_unique<KnownCrossings>();
    Position position = at(address, page - 16, page - 16);
    position.identity = 1;
    for (const std::uint8_t base : {platform::Rsp, platform::Rbp}) {
        position.predicted = cache->store({address - 1, 1}, ruleOf(base, 32, 0));
        for (int round = 0; round < 2; ++round) {
            StackWords words(ownSpace, {page - 64, next}, {page - 64, page}, true);
            scripted::memoryQuestions = 0;
            EXPECT_EQ(reach(*cache, crossings.get(), words, position), next);
            EXPECT_EQ(scripted::memoryQuestions == 0, base == platform::Rsp && round == 1);
        }
    }
    for (std::uint64_t other = 0; other < 1 << 14; ++other) {
        ASSERT_EQ(crossings->endAfter({address, page - 24 - 8 * other, page}), page);
    }
    crossings->turnOff();
    EXPECT_EQ(crossings->endAfter({address, page - 16, page}), page);
    scripted::memory.clear();
}

}  // namespace
}  // namespace ThreadUtilities::cfi
