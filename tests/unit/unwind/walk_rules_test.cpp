// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "unwind/walk.h"

namespace ThreadUtilities {
namespace {

/// What the script says of one code address.
struct Frame {
    StepResult result = StepResult::Made;
    std::uint64_t caller = 0;
    std::int64_t size = 16;  ///< how far the stack pointer moves
};

class ScriptedUnwinder {
 public:
    explicit ScriptedUnwinder(std::map<std::uint64_t, Frame> script) : frames(std::move(script)) {}

    std::uint64_t programCounter() const { return counter; }
    std::uint64_t stackPointer() const { return stack; }

    template <class Words>
    StepResult step(Words&) {
        const auto frame = frames.find(counter);
        if (!isReturnedTo()) {
            return StepResult::NotReturnedTo;
        }
        if (frame == frames.end()) {
            return StepResult::NoUnwindData;
        }
        if (frame->second.result == StepResult::Made) {
            counter = frame->second.caller;
            stack += static_cast<std::uint64_t>(frame->second.size);
        }
        return frame->second.result;
    }

    // Addresses from 100 on are none that a call returns to.
    bool isReturnedTo() const { return counter < 100; }

    bool returnTo(std::uint64_t address, std::uint64_t stackPointer) {
        counter = address;
        stack = stackPointer;
        return isReturnedTo();
    }

    std::map<std::uint64_t, Frame> frames;
    std::uint64_t counter = 1;
    std::uint64_t stack = 1000;
};

struct ScriptedWords {
    bool read(std::uint64_t address, std::uint64_t& word) const {
        const auto found = words.find(address);
        if (found == words.end()) {
            return false;
        }
        word = found->second;
        return true;
    }
    std::map<std::uint64_t, std::uint64_t> words;
};

struct Case {
    const char* name;
    std::map<std::uint64_t, Frame> frames;
    std::map<std::uint64_t, std::uint64_t> words;
    std::size_t maxFrames;
    std::vector<unsigned long long> stored;
    WalkEnd end;
};

std::ostream& operator<<(std::ostream& out, const Case& tested) {
    return out << tested.name;
}

class WalkRules : public testing::TestWithParam<Case> {};

TEST_P(WalkRules, HoldForTheStack) {
    const Case& tested = GetParam();
    ScriptedUnwinder unwinder(tested.frames);
    ScriptedWords words{tested.words};
    std::vector<unsigned long long> frames(40, 77);
    const WalkResult result = walkStack(unwinder, words, frames.data(), tested.maxFrames);
    EXPECT_EQ(result.end, tested.end);
    ASSERT_LE(result.frameCount, tested.maxFrames);
    EXPECT_EQ(std::vector(frames.begin(), frames.begin() + result.frameCount), tested.stored);
    EXPECT_TRUE(std::all_of(frames.begin() + result.frameCount, frames.end(),
                            [](unsigned long long entry) { return entry == 77; }));
}

constexpr auto made = StepResult::Made;

/// Alternating between two stacks, one address each.
std::map<std::uint64_t, Frame> changes(unsigned count) {
    std::map<std::uint64_t, Frame> frames;
    for (unsigned frame = 1; frame <= count; ++frame) {
        frames[frame] = {made, frame + 1, -8};
    }
    frames[count + 1] = {StepResult::EndOfStack};
    return frames;
}

INSTANTIATE_TEST_SUITE_P(
    Stacks, WalkRules,
    testing::Values(
        Case{"StartIsNotStored",
             {{1, {made, 2}}, {2, {made, 3}}, {3, {made, 0}}},
             {},
             9,
             {2, 3},
             WalkEnd::EndOfStack},
        Case{"NoMoreRoom", {{1, {made, 2}}, {2, {made, 3}}}, {}, 1, {2}, WalkEnd::FrameLimit},
        Case{"NotReturnedTo",
             {{1, {made, 2}}, {2, {made, 100}}},
             {},
             9,
             {2},
             WalkEnd::NoReturnAddress},
        Case{"LastIsNotReturnedTo",
             {{1, {made, 2}}, {2, {made, 100}}},
             {},
             2,
             {2},
             WalkEnd::NoReturnAddress},
        Case{"GuessIsNotReturnedTo", {}, {{1000, 100}}, 9, {}, WalkEnd::NoUnwindData},
        Case{"TwoFramesWithoutTables", {}, {{1000, 2}, {1008, 3}}, 9, {2}, WalkEnd::NoUnwindData},
        Case{"OuterFrameWithoutTables",
             {{1, {made, 2}}},
             {{1016, 3}},
             9,
             {2},
             WalkEnd::NoUnwindData},
        Case{"ReturnAddressAlreadyPopped",
             {{1, {made, 2, 0}}, {2, {made, 0}}},
             {},
             9,
             {2},
             WalkEnd::EndOfStack},
        Case{"FrameThatIsItsOwnCaller",
             {{1, {made, 2}}, {2, {made, 2, 0}}},
             {},
             9,
             {2},
             WalkEnd::NoProgress},
        Case{"EndlessChangeOfStacks",
             changes(maxStackChanges + 5),
             {},
             20,
             {2, 3, 4, 5, 6, 7, 8, 9},
             WalkEnd::NoProgress}),
    [](const auto& tested) { return tested.param.name; });

}  // namespace
}  // namespace ThreadUtilities
