// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Walks over made-up code and stacks: what contexts of different kinds ask of the walk.

#include "unwind/frame_walk.h"

#include <gtest/gtest.h>

#include "scripted_platform/memory_script.h"
#include "unwind/eh_frame.h"
#include "unwind/table_builder.h"

namespace ThreadUtilities {
namespace {

using cfi::Bytes;

constexpr std::uint64_t stackBegin = 0x7000'0000;

// Functions of the made-up module, by the offset of their code.
constexpr std::uint64_t plain = 0x4000;              ///< frame of 32 bytes
constexpr std::uint64_t withFramePointer = 0x5000;   ///< saved at -16, CFA rbp + 16
constexpr std::uint64_t byRbx = 0x6000;              ///< CFA rbx + 16
constexpr std::uint64_t savesRbx = 0x7000;           ///< frame of 32 bytes, rbx saved at -16
constexpr std::uint64_t savesFramePointer = 0xA000;  ///< the same for rbp
constexpr std::uint64_t trampoline = 0x8000;         ///< signal frame of 64 bytes
constexpr std::uint64_t outermost = 0x9000;          ///< without a caller

class FrameWalk : public testing::Test {
 protected:
    void SetUp() override {
        const auto cie = builder.addCie("zR", {0x1B}, cfi::usualCieProgram);
        const auto signal = builder.addCie("zRS", {0x1B}, cfi::usualCieProgram);
        builder.addFunction(cie, plain, 0x100, {0x0E, 32});
        builder.addFunction(cie, withFramePointer, 0x100, {0x0C, 6, 16, 0x86, 2});
        builder.addFunction(cie, byRbx, 0x100, {0x0C, 3, 16});
        builder.addFunction(cie, savesRbx, 0x100, {0x0E, 32, 0x83, 2});
        builder.addFunction(cie, savesFramePointer, 0x100, {0x0E, 32, 0x86, 2});
        builder.addFunction(signal, trampoline, 0x100, {0x0E, 64});
        builder.addFunction(cie, outermost, 0x100, {0x07, 16});
        builder.finish();
    }
    void TearDown() override {
        scripted::codeModules.clear();
        scripted::memory.clear();
    }

    void addModule(bool isPermanent) {
        scripted::codeModules.push_back(builder.module(isPermanent));
    }

    /// The address right behind a call in the function.
    std::uint64_t in(std::uint64_t function) const { return builder.address(function + 0x10); }

    /// Puts words on the stack, from its begin on, into real memory.
    void setStack(const std::vector<std::uint64_t>& stackWords) {
        words = stackWords;
        context.stack = {stackBegin, stackBegin + 8 * words.size()};
        context.stackShift = reinterpret_cast<std::uint64_t>(words.data()) - stackBegin;
        context.registers[platform::Rsp] = stackBegin;
    }

    std::vector<unsigned long long> walk(std::uint64_t from, WalkEnd end) {
        context.registers[platform::Rip] = from;
        unsigned long long frames[16];
        const WalkResult result = walkThread(context, frames, 16);
        EXPECT_EQ(result.end, end);
        return {frames, frames + result.frameCount};
    }

    using Expected = std::vector<unsigned long long>;

    cfi::TableBuilder builder;
    std::vector<std::uint64_t> words;
    platform::ThreadContext context;
};

TEST_F(FrameWalk, AsksForTheFramePointerOnlyWhereItIsNeeded) {
    addModule(true);
    setStack({0, 0, 0, in(withFramePointer), 0, in(outermost)});
    context.registers[platform::Rbp] = stackBegin + 32;
    for (int round = 0; round < 3; ++round) {
        context.knownRegisters = platform::allRegisters;
        EXPECT_EQ(walk(in(plain), WalkEnd::EndOfStack),
                  (Expected{in(withFramePointer), in(outermost)}));
        context.knownRegisters =
            platform::registerBit(platform::Rip) | platform::registerBit(platform::Rsp);
        EXPECT_EQ(walk(in(plain), WalkEnd::UnknownRegister), Expected{in(withFramePointer)});
    }
}

/// A frame pointer that is not known at first is known from the frame on that saved it.
TEST_F(FrameWalk, FindsAnUnknownFramePointerWhereItWasSaved) {
    addModule(true);
    setStack({0, 0, stackBegin + 32, in(withFramePointer), 0, in(outermost)});
    context.knownRegisters =
        platform::registerBit(platform::Rip) | platform::registerBit(platform::Rsp);
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(walk(in(savesFramePointer), WalkEnd::EndOfStack),
                  (Expected{in(withFramePointer), in(outermost)}));
    }
}

/// Cached rules do not carry rbx along; the walk starts over with the tables when it is needed.
TEST_F(FrameWalk, FindsFramesByRegistersThatCachedRulesLose) {
    addModule(true);
    setStack({0, 0, stackBegin + 64, in(plain), 0, 0, 0, in(byRbx), 0, in(outermost)});
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(walk(in(savesRbx), WalkEnd::EndOfStack),
                  (Expected{in(plain), in(byRbx), in(outermost)}));
    }
}

/// Looked up one byte earlier, it is what the empty entries of the cache could be taken for.
TEST_F(FrameWalk, HasNoRuleForAddressOne) {
    addModule(true);
    scripted::memory[builder.address()] = builder.memory;
    setStack({0, 0, 0, 1, in(plain), 0});
    EXPECT_EQ(walk(in(plain), WalkEnd::NoReturnAddress), Expected{});
    context.registers[platform::Rsp] += 32;
    const auto asInterrupted = [&] {
        context.registers[platform::Rip] = 1;
        unsigned long long frame = 0;
        walkThread(context, &frame, 1);
        return frame;
    };
    EXPECT_EQ(asInterrupted(), in(plain));
}

/// The instruction at which a signal struck may be the first of a function: nothing before it is
/// looked up, whereas a return address right behind a function belongs to the call before it.
TEST_F(FrameWalk, LooksUpInterruptedAddressesAsTheyStand) {
    addModule(true);
    setStack({0, 0, 0, in(trampoline),         0, 0, 0, 0,
              0, 0, 0, builder.address(plain), 0, 0, 0, builder.address(plain + 0x100),
              0, 0, 0, in(outermost)});
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(walk(in(plain), WalkEnd::EndOfStack),
                  (Expected{in(trampoline), builder.address(plain), builder.address(plain + 0x100),
                            in(outermost)}));
    }
}

/// The first entries of a table without an index are looked at on the spot, all others outside.
TEST_F(FrameWalk, FindsFunctionsWithoutAnIndex) {
    cfi::TableBuilder large;
    const auto cie = large.addCie("zR", {0x1B}, cfi::usualCieProgram);
    large.addFunction(cie, plain, 0x100, {0x0E, 32});
    large.addFunction(cie, outermost, 0x100, {0x07, 16});
    for (unsigned number = 0; number < cfi::mostEntriesWhileHeld; ++number) {
        large.addFunction(cie, 0xB000 + 32 * number, 32, {0x0E, 16});
    }
    constexpr std::uint64_t late = 0xD000;
    large.addFunction(cie, late, 0x100, {0x0E, 32});
    large.finish();
    large.memory[2] = large.memory[3] = 0xFF;  // encodings of count and pairs: there are none
    builder = large;
    addModule(true);
    setStack({0, 0, 0, in(late), 0, 0, 0, in(outermost)});
    scripted::memory[builder.address()] = builder.memory;
    EXPECT_EQ(walk(in(plain), WalkEnd::LongSearch), Expected{in(late)});
    prepareFrameWalks();
    EXPECT_EQ(walk(in(plain), WalkEnd::EndOfStack), (Expected{in(late), in(outermost)}));
}

/// A filter of a thread's own may end it for any system call.
TEST_F(FrameWalk, MakesNoSystemCallWhereItMayNot) {
    addModule(true);
    setStack({0, 0, 0, in(plain), 0, 0, 0, in(plain), 0, 0, 0, in(outermost)});
    const auto begin = reinterpret_cast<std::uint64_t>(words.data());
    context.stack = {begin, begin + 8 * words.size()};
    context.readableStack = {begin, begin + 64};
    context.stackShift = 0;
    context.registers[platform::Rsp] = begin;
    scripted::memory[builder.address()] = builder.memory;
    scripted::memory[begin] = scripted::bytesOf(words);
    context.mayCallSystem = false;
    scripted::memoryQuestions = 0;
    EXPECT_EQ(walk(in(plain), WalkEnd::Unreadable), (Expected{in(plain), in(plain)}));
    EXPECT_EQ(scripted::memoryQuestions, 0u);
    context.mayCallSystem = true;
    EXPECT_EQ(walk(in(plain), WalkEnd::EndOfStack),
              (Expected{in(plain), in(plain), in(outermost)}));
}

/// Tables of a module that may go while the walk reads them are not touched in place.
TEST_F(FrameWalk, ReadsTablesThroughTheSystemWhereTheThreadIsNotHeld) {
    addModule(false);
    context.isStopped = false;
    setStack({0, 0, 0, in(savesRbx), 0, 0, 0, in(outermost)});
    EXPECT_EQ(walk(in(byRbx), WalkEnd::Unreadable), Expected{});
    scripted::memory[builder.address()] = builder.memory;
    EXPECT_EQ(walk(in(plain), WalkEnd::EndOfStack), (Expected{in(savesRbx), in(outermost)}));
}

}  // namespace
}  // namespace ThreadUtilities
