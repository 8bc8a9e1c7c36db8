// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Walks over made-up code and stacks: what contexts of different kinds ask of the walk.

#include "unwind/frame_walk.h"

#include <gtest/gtest.h>

#include <cstring>

#include "scripted_platform/script.h"
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
constexpr std::uint64_t silent = 0xB000;             ///< pushes what its tables leave out
constexpr std::uint64_t caller = 0xC000;             ///< frame of 32 bytes, as `plain`
constexpr std::uint64_t losesFramePointer = 0xF000;  ///< the same, rbp undefined
constexpr std::uint64_t waiting = 0xE000;            ///< as `withFramePointer` behind its call
constexpr std::uint64_t behindPlain = 0x4100;        ///< frame of 16 bytes

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
        builder.addFunction(cie, silent, 0x100, {});
        builder.addFunction(cie, caller, 0x100, {0x0E, 32});
        builder.addFunction(cie, losesFramePointer, 0x100, {0x0E, 32, 0x07, 6});
        builder.addFunction(cie, waiting, 0x100, {0x50, 0x0C, 6, 16, 0x86, 2});
        builder.addFunction(cie, behindPlain, 0x20, {0x0E, 16});
        builder.finish();
    }
    void TearDown() override {
        scripted::permanentIdentity = 0;
        scripted::codeModules.clear();
        scripted::memory.clear();
    }

    void addModule(bool isPermanent) {
        scripted::codeModules.push_back(builder.module(isPermanent));
        scripted::memory[builder.address()] = builder.memory;
    }

    /// The address right behind a call in the function.
    std::uint64_t in(std::uint64_t function) const { return builder.address(function + 0x10); }

    /// Puts code into the module.
    void put(std::uint64_t place, const Bytes& code) {
        std::copy(code.begin(), code.end(), builder.memory.begin() + place);
        scripted::memory[builder.address()] = builder.memory;
    }
    /// Has the call in the function `from` call this place.
    void callFrom(std::uint64_t from, std::uint64_t place) {
        const auto distance = static_cast<std::uint32_t>(place - (from + 16));
        Bytes call{0xE8, 0, 0, 0, 0};
        std::memcpy(&call[1], &distance, sizeof(distance));
        put(from + 11, call);
    }

    /// Puts words on the stack, from its begin on, into real memory.
    void setStack(const std::vector<std::uint64_t>& stackWords) {
        words = stackWords;
        context.stack = {stackBegin, stackBegin + 8 * words.size()};
        context.stackShift = reinterpret_cast<std::uint64_t>(words.data()) - stackBegin;
        context.registers[platform::Rsp] = stackBegin;
    }

    std::vector<unsigned long long> walk(std::uint64_t from, WalkEnd end, std::size_t room = 16) {
        context.registers[platform::Rip] = from;
        unsigned long long frames[16];
        const WalkResult result = walkThread(context, frames, room);
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

/// Where the tables cannot tell, the instructions do, if the caller's call names the function, and
/// goes on to another caller: by a prologue that saved a frame pointer which is not known, and by
/// what was pushed before the place of interruption.
TEST_F(FrameWalk, BelievesCodeThatIsCalledByNameAndLeadsOn) {
    addModule(true);
    put(withFramePointer, {0x55, 0x48, 0x89, 0xE5, 0x48, 0x83, 0xEC, 0x10});  // and 16 bytes more
    put(silent, {0x53, 0x53});
    const struct {
        const char* name;
        std::uint64_t distance;  ///< from the function's entry to what is called
        bool byRegister;
        std::uint64_t from;
        std::uint64_t next;  ///< where the caller's caller is said to be
        bool byPrologue;
        bool byDepth;
    } cases[] = {
        {"a call of it", 0, false, caller, in(outermost), true, true},
        {"of the instruction behind its mark", 4, false, caller, in(outermost), true, true},
        {"of another function", 8, false, caller, in(outermost), false, false},
        {"by a register", 0, true, caller, in(outermost), true, false},
        {"by the first function of a thread", 0, false, outermost, 0, true, true},
        {"back to where no call lies before", 0, false, caller, in(plain) + 1, false, false},
    };
    for (const auto& tested : cases) {
        SCOPED_TRACE(tested.name);
        const auto call = [&](std::uint64_t function) {
            callFrom(tested.from, function + tested.distance);
            if (tested.byRegister) {
                put(tested.from + 11, {0x90, 0x90, 0x90, 0xFF, 0xD0});
            }
        };
        Expected callers{in(tested.from)};
        if (tested.from == caller) {
            callers.push_back(in(outermost));
        }
        call(withFramePointer);
        setStack({0, 0, 0, in(withFramePointer), 0, 0, 0, in(tested.from), 0, 0, 0, tested.next});
        context.knownRegisters =
            platform::registerBit(platform::Rip) | platform::registerBit(platform::Rsp);
        Expected expected = tested.byPrologue ? callers : Expected();
        expected.insert(expected.begin(), in(withFramePointer));
        EXPECT_EQ(
            walk(in(plain), tested.byPrologue ? WalkEnd::EndOfStack : WalkEnd::UnknownRegister),
            expected);
        call(silent);
        setStack({0, 0, in(tested.from), 0, 0, 0, tested.next});
        context.knownRegisters = platform::allRegisters;
        EXPECT_EQ(walk(builder.address(silent + 2), WalkEnd::EndOfStack),
                  tested.byDepth ? callers : Expected());
    }
}

/// Where it was interrupted, a frame may be half gone, unless it waits in the kernel; and where the
/// tables know of a frame, what lies below it is none.
TEST_F(FrameWalk, BelievesNoCodeOfAFrameThatMayBeAnother) {
    addModule(true);
    put(waiting, {0x55, 0x48, 0x89, 0xE5, 0x48, 0x83, 0xEC, 0x10, 0, 0, 0, 0, 0, 0, 0x0F, 0x05});
    callFrom(caller, waiting);
    setStack({0, 0, 0, in(caller), 0, 0, 0, in(outermost)});
    context.knownRegisters =
        platform::registerBit(platform::Rip) | platform::registerBit(platform::Rsp);
    EXPECT_EQ(walk(in(waiting), WalkEnd::EndOfStack), (Expected{in(caller), in(outermost)}));
    put(waiting + 14, {0, 0});
    EXPECT_EQ(walk(in(waiting), WalkEnd::UnknownRegister), Expected{});

    put(plain, {0x53});
    callFrom(caller, plain);
    setStack({0, in(caller), 0, 1, 0, in(outermost)});
    context.knownRegisters = platform::allRegisters;
    EXPECT_EQ(walk(builder.address(plain + 1), WalkEnd::NoReturnAddress), Expected{});

    // A frame pointer that was known at first: the thread is held.
    put(withFramePointer, {0x55, 0x48, 0x89, 0xE5, 0x48, 0x83, 0xEC, 0x10});
    callFrom(caller, withFramePointer);
    setStack({0, 0, 0, in(withFramePointer), 0, 0, 0, in(caller), 0, 0, 0, in(outermost)});
    EXPECT_EQ(walk(in(losesFramePointer), WalkEnd::UnknownRegister),
              Expected{in(withFramePointer)});

    // A caller whose own caller would lie below it.
    put(silent, {0x53, 0x53});
    callFrom(withFramePointer, silent);
    setStack({0, in(outermost), in(withFramePointer), 0, 0, 0});
    context.registers[platform::Rbp] = stackBegin;
    EXPECT_EQ(walk(builder.address(silent + 2), WalkEnd::EndOfStack), Expected{});
}

/// Damage, other stacks, and registers that cached rules do not carry along: what the first walk
/// finds with every check, the next ones find by the rules that it left.
TEST_F(FrameWalk, FindsTheSameByCachedRules) {
    addModule(true);
    constexpr std::uint64_t lower = 0x6000'0000;
    scripted::memory[lower] =
        scripted::bytesOf({0, in(plain), 0, 0, 0, in(caller), 0, 0, 0, in(outermost)});
    using Words = std::vector<std::uint64_t>;
    const Words byFrame{0, 0, 0, in(withFramePointer), 0, in(outermost)};
    const Words saved{0, 0, stackBegin + 64, in(plain), 0, 0, 0, in(byRbx), 0, in(outermost)};
    const Words both{0, in(savesRbx), 0, 0, stackBegin + 64, in(byRbx), 0, 0, 0, in(outermost)};
    const struct {
        const char* name;
        std::uint64_t from;
        std::uint64_t frame;  ///< rbp and rbx
        Words stack;
        Expected expected;
        WalkEnd end = WalkEnd::EndOfStack;
    } cases[] = {
        {"frame below the stack pointer", plain, stackBegin - 4096, byFrame,
         Expected{in(withFramePointer)}, WalkEnd::Unreadable},
        {"frame at the end of all addresses", plain, UINT64_MAX - 7, byFrame,
         Expected{in(withFramePointer)}, WalkEnd::Unreadable},
        {"by a saved register", savesRbx, 0, saved, Expected{in(plain), in(byRbx), in(outermost)}},
        {"by one that had another value", byRbx, stackBegin, both,
         Expected{in(savesRbx), in(byRbx), in(outermost)}},
        {"on a stack that lies lower", byRbx, lower, Words(1),
         Expected{in(plain), in(caller), in(outermost)}},
    };
    for (const auto& tested : cases) {
        SCOPED_TRACE(tested.name);
        setStack(tested.stack);
        context.registers[platform::Rbp] = context.registers[platform::Rbx] = tested.frame;
        for (int round = 0; round < 3; ++round) {
            EXPECT_EQ(walk(in(tested.from), tested.end), tested.expected);
        }
    }
}

/// The prologue aligns the stack: between it and the frame lies nobody knows how much, up to 56
/// bytes.
TEST_F(FrameWalk, BelievesTheOnlyFrameAboveAnAlignedStack) {
    addModule(true);
    put(withFramePointer, {0x55, 0x48, 0x89, 0xE5, 0x48, 0x83, 0xE4, 0xC0});
    callFrom(caller, withFramePointer);
    setStack({0, 0, 0, in(withFramePointer), 0, 0, 0, in(caller), 0, 0, 0, in(outermost), 0, 0});
    context.knownRegisters =
        platform::registerBit(platform::Rip) | platform::registerBit(platform::Rsp);
    EXPECT_EQ(walk(in(plain), WalkEnd::EndOfStack),
              (Expected{in(withFramePointer), in(caller), in(outermost)}));
    words[9] = in(caller);
    words[13] = in(outermost);
    EXPECT_EQ(walk(in(plain), WalkEnd::UnknownRegister), Expected{in(withFramePointer)});
}

/// One, looked up one byte earlier, is what the empty entries of the cache could be taken for.
TEST_F(FrameWalk, HasNoRuleForWhatNoCallReturnsTo) {
    addModule(true);
    scripted::memory.clear();  // nobody can tell: it is followed, and leaves no rule
    setStack({0, 0, 0, in(plain) + 1, 0, 0, 0, in(outermost)});
    EXPECT_EQ(walk(in(plain), WalkEnd::EndOfStack), (Expected{in(plain) + 1, in(outermost)}));
    scripted::memory[builder.address()] = builder.memory;
    for (const std::uint64_t none : {std::uint64_t{1}, in(plain) + 1, in(plain) + 1}) {
        setStack({0, 0, 0, none, in(plain), 0, 0, 0, in(outermost)});
        EXPECT_EQ(walk(in(plain), WalkEnd::NoReturnAddress), Expected{});
        EXPECT_EQ(walk(in(plain), WalkEnd::NoReturnAddress, 1), Expected{});
        // Code without tables: the word on its stack counts if a call lies before it.
        context.registers[platform::Rsp] += 32;
        for (const std::uint64_t uncovered : {std::uint64_t{1}, builder.address(plain + 0x200)}) {
            EXPECT_EQ(walk(uncovered, WalkEnd::EndOfStack), (Expected{in(plain), in(outermost)}));
        }
        context.registers[platform::Rsp] -= 8;
        EXPECT_EQ(walk(1, WalkEnd::NoUnwindData), Expected{});
    }
}

/// What one walk learned of a page that another thread's stack crosses into is not believed later.
TEST_F(FrameWalk, AsksForThePagesOfAnotherThreadsStackEachTime) {
    addModule(true);
    constexpr std::size_t wordsInPage = platform::memoryPageSize / 8;
    words.resize(4 * wordsInPage);
    const auto begin = reinterpret_cast<std::uint64_t>(words.data());
    const std::uint64_t page = (begin / platform::memoryPageSize + 2) * platform::memoryPageSize;
    const std::uint64_t stackPointer = page - 80;
    const auto at = words.begin() + static_cast<std::ptrdiff_t>((stackPointer - begin) / 8);
    at[3] = at[7] = in(plain);
    at[11] = in(outermost);
    context.stack = {begin, begin + 8 * words.size()};
    context.readableStack = {stackPointer, page};
    context.registers[platform::Rsp] = stackPointer;
    scripted::memory[begin] = scripted::bytesOf(words);
    for (int round = 0; round < 4; ++round) {
        scripted::memoryQuestions = 0;
        EXPECT_EQ(walk(in(plain), WalkEnd::EndOfStack),
                  (Expected{in(plain), in(plain), in(outermost)}));
        EXPECT_GT(scripted::memoryQuestions, 0U);
    }
}

/// The instruction at which a signal struck may be the first of a function: nothing before it is
/// looked up, whereas a return address right behind a function belongs to the call before it.
TEST_F(FrameWalk, LooksUpInterruptedAddressesAsTheyStand) {
    addModule(true);
    put(behindPlain - 5, {0xE8});
    const std::uint64_t both = builder.address(behindPlain);
    // From both, a frame of `plain` would end at the same return address.
    setStack({0, 0, 0, in(trampoline), 0, 0, 0, 0, 0, 0, 0, both, 0, both, 0, in(outermost), 0,
              in(outermost)});
    for (const std::uint64_t permanent : {0, 4711, 4711}) {
        scripted::permanentIdentity = permanent;  // then known paths are followed
        EXPECT_EQ(walk(in(plain), WalkEnd::EndOfStack),
                  (Expected{in(trampoline), both, both, in(outermost)}));
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
    setStack({0});
    EXPECT_EQ(walk(builder.address(byRbx), WalkEnd::LongSearch), Expected{});
    prepareFrameWalks();
    EXPECT_EQ(walk(builder.address(byRbx), WalkEnd::EndOfStack), Expected{}) << "there is none";
    setStack({0, 0, 0, in(late), 0, 0, 0, in(outermost)});
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
    scripted::memory[begin] = scripted::bytesOf(words);
    context.mayCallSystem = false;
    scripted::memoryQuestions = 0;
    EXPECT_EQ(walk(in(plain), WalkEnd::Unreadable), (Expected{in(plain), in(plain)}));
    EXPECT_EQ(walk(builder.address(silent + 2), WalkEnd::EndOfStack), Expected{});
    EXPECT_EQ(scripted::memoryQuestions, 0u);
    context.mayCallSystem = true;
    EXPECT_EQ(walk(in(plain), WalkEnd::EndOfStack),
              (Expected{in(plain), in(plain), in(outermost)}));
}

/// Tables of a module that may go while the walk reads them are not touched in place.
TEST_F(FrameWalk, ReadsTablesThroughTheSystemWhereTheThreadIsNotHeld) {
    addModule(false);
    context.isStopped = false;
    for (const std::uint64_t never : {0x30, 0x40}) {  // was an address in the cache
        setStack({0, 0, 0, in(savesRbx), 0, 0, 0, in(outermost)});
        if (never == 0x40) {
            context.registers[platform::Rsp] += context.stackShift;
            context.stack = {context.registers[platform::Rsp],
                             context.registers[platform::Rsp] + 8 * words.size()};
            context.stackShift = 0;
        }
        scripted::memory.clear();
        EXPECT_EQ(walk(builder.address(plain + never), WalkEnd::Unreadable), Expected{});
        scripted::memory[builder.address()] = builder.memory;
        EXPECT_EQ(walk(builder.address(plain + never), WalkEnd::EndOfStack),
                  (Expected{in(savesRbx), in(outermost)}));
    }
}

/// Nor where the walk went on from a guess, which may be a stale word: nothing holds its module.
TEST_F(FrameWalk, ReadsTablesThroughTheSystemAfterAGuess) {
    addModule(false);
    scripted::codeModules.back().identity = 4712;  // that no rule is cached of
    const auto code = builder.memory.begin() + plain;
    scripted::memory = {{builder.address(plain), {code, code + 0x100}}};
    setStack({in(plain), 0, 0, 0, in(outermost)});
    EXPECT_EQ(walk(1, WalkEnd::Unreadable), Expected{in(plain)});
}

}  // namespace
}  // namespace ThreadUtilities
