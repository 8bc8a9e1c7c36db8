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

TEST(WalkRules, HoldForTheStack) {
    const Frame two = {made, 2};
    const Frame three = {made, 3};
    const Frame last = {made, 0};
    const Frame notReturnedTo = {made, 100};
    const Case cases[] = {
        {"the start is not stored",
         {{1, two}, {2, three}, {3, last}},
         {},
         9,
         {2, 3},
         WalkEnd::EndOfStack},
        {"no more room", {{1, two}, {2, three}}, {}, 1, {2}, WalkEnd::FrameLimit},
        {"not returned to", {{1, two}, {2, notReturnedTo}}, {}, 9, {2}, WalkEnd::NoReturnAddress},
        {"nor the last", {{1, two}, {2, notReturnedTo}}, {}, 2, {2}, WalkEnd::NoReturnAddress},
        {"nor a guess", {}, {{1000, 100}}, 9, {}, WalkEnd::NoUnwindData},
        {"two frames without tables", {}, {{1000, 2}, {1008, 3}}, 9, {2}, WalkEnd::NoUnwindData},
        {"an outer one without tables", {{1, two}}, {{1016, 3}}, 9, {2}, WalkEnd::NoUnwindData},
        {"already popped", {{1, {made, 2, 0}}, {2, last}}, {}, 9, {2}, WalkEnd::EndOfStack},
        {"its own caller", {{1, two}, {2, {made, 2, 0}}}, {}, 9, {2}, WalkEnd::NoProgress},
        {"endless change of stacks",
         changes(maxStackChanges + 5),
         {},
         20,
         {2, 3, 4, 5, 6, 7, 8, 9},
         WalkEnd::NoProgress},
    };
    for (const Case& tested : cases) {
        SCOPED_TRACE(tested.name);
        ScriptedUnwinder unwinder(tested.frames);
        ScriptedWords words{tested.words};
        std::vector<unsigned long long> expected(40, 77);
        std::copy(tested.stored.begin(), tested.stored.end(), expected.begin());
        std::vector<unsigned long long> frames(40, 77);
        const WalkResult result = walkStack(unwinder, words, frames.data(), tested.maxFrames);
        EXPECT_EQ(result.end, tested.end);
        EXPECT_EQ(result.frameCount, tested.stored.size());
        EXPECT_EQ(frames, expected);
    }
}

}  // namespace
}  // namespace ThreadUtilities
