// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// What instructions tell: where functions keep their frame pointers, what they have on the stack,
// and whether a call lies before an address.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "scripted_platform/script.h"
#include "unwind/call_site.h"
#include "unwind/code_depth.h"
#include "unwind/own_space.h"
#include "unwind/prologue.h"

namespace ThreadUtilities::cfi {
namespace {

using namespace std::string_view_literals;

constexpr std::uint64_t codeBegin = 0x401000;

struct Prologue {
    const char* name;
    std::string_view code;
    bool isUnderstood;
    std::uint64_t distance = 0;
    std::uint64_t slack = 0;
};

const Prologue prologues[] = {
    // endbr64; push rbp; mov rbp,rsp; sub rsp,0x120; call
    {"AtOnce", "\xF3\x0F\x1E\xFA\x55\x48\x89\xE5\x48\x81\xEC\x20\x01\x00\x00\xE8\0\0\0\0"sv, true,
     0x120},
    // push rbp; mov edx,-1; mov rbp,rsp; push r15; push rbx; mov ebx,edi; lea rdi,[rbp-0x18];
    // sub rsp,0x18; mov eax,[rip+1]; mov dword [rbp-0x14],1; call
    {"Interleaved",
     "\x55\xBA\xFF\xFF\xFF\xFF\x48\x89\xE5\x41\x57\x53\x89\xFB\x48\x8D\x7D\xE8\x48\x83\xEC\x18"
     "\x8B\x05\x01\x00\x00\x00\xC7\x45\xEC\x01\x00\x00\x00\xE8\0\0\0\0"sv,
     true, 0x28},
    // test edi,edi; jle; push rbp; mov rbp,rsp; push rbx; push rax; call
    {"BehindAnEarlyExit", "\x85\xFF\x7E\x20\x55\x48\x89\xE5\x53\x50\xE8\0\0\0\0"sv, true, 16},
    // push rbp; mov rbp,rsp; and rsp,-64; sub rsp,0x80; call
    {"Aligned", "\x55\x48\x89\xE5\x48\x83\xE4\xC0\x48\x81\xEC\x80\x00\x00\x00\xE8\0\0\0\0"sv, true,
     0x80, 56},
    // lea r10,[rsp+8]; and rsp,-32; push [r10-8]; push rbp; mov rbp,rsp; push r10; sub rsp,0x48;
    // call
    {"AlignedBefore",
     "\x4C\x8D\x54\x24\x08\x48\x83\xE4\xE0\x41\xFF\x72\xF8\x55\x48\x89\xE5\x41\x52\x48\x83\xEC\x48"
     "\xE8\0\0\0\0"sv,
     true, 0x50},
    // push rbp; vmovd xmm0,edi; mov rbp,rsp; call: what lies between may be a vector's
    {"VectorInstruction", "\x55\xC5\xF9\x6E\xC7\x48\x89\xE5\xE8\0\0\0\0"sv, true, 0},
    // sub rsp,0x18; call
    {"WithoutFramePointer", "\x48\x83\xEC\x18\xE8\0\0\0\0"sv, false},
    // push rbp; mov rbp,rdi; call: a general register like any other
    {"OtherUse", "\x55\x48\x89\xFD\xE8\0\0\0\0"sv, false},
    // push rbp; mov rbp,rsp; sub rsp,rax; call
    {"VariableRoom", "\x55\x48\x89\xE5\x48\x29\xC4\xE8\0\0\0\0"sv, false},
    // push rbp; mov rbp,rsp; add rbp,8; call
    {"MovedAfterwards", "\x55\x48\x89\xE5\x48\x83\xC5\x08\xE8\0\0\0\0"sv, false},
    // push rbp; mov rbp,rsp; add rsp,8; call: below the frame pointer
    {"SmallerAfterwards", "\x55\x48\x89\xE5\x48\x83\xC4\x08\xE8\0\0\0\0"sv, false},
    // push rbp; mov rbp,rsp; (no instruction)
    {"NoCode", "\x55\x48\x89\xE5\x06"sv, false},
};

TEST(Code, SaysWhereThePrologueKeepsTheFramePointer) {
    for (const Prologue& prologue : prologues) {
        SCOPED_TRACE(prologue.name);
        const ByteCursor code(prologue.code.data(), prologue.code.size());
        const auto place = findFramePointer(code, prologue.code.size());
        EXPECT_EQ(place.has_value(), prologue.isUnderstood);
        EXPECT_EQ(place.value_or(FramePointerPlace()).distance, prologue.distance);
        EXPECT_EQ(place.value_or(FramePointerPlace()).slack, prologue.slack);
    }
}

struct Function {
    const char* name;
    std::string_view code;
    std::uint64_t at;  ///< the instruction where the thread stands
    bool isUnderstood;
    std::uint64_t depth = 0;
    std::uint64_t savedFrame = 0;
};

// push rbx; push rbp; xor ebp,ebp; jmp +4; inc rax; nop; dec rdx; jne to the inc; pop rbp; pop rbx;
// ret: the loop is entered in its middle.
constexpr auto loop = "\x53\x55\x31\xED\xEB\x04\x48\xFF\xC0\x90\x48\xFF\xCA\x75\xF7\x5D\x5B\xC3"sv;
// test edi,edi; je +2; push rax; pop rax; nop; ret; ud2
constexpr auto early = "\x85\xFF\x74\x02\x50\x58\x90\xC3\x0F\x0B"sv;

// je +1; nop; and so on
const std::string manyBranches = [] {
    std::string code;
    while (code.size() < 75) {
        code += "\x74\x01\x90";
    }
    return code + '\x90';
}();

const Function functions[] = {
    {"AtTheEntry", loop, 0, true, 0, 0},
    {"BetweenPushes", loop, 1, true, 8, 0},
    {"BehindPushes", loop, 4, true, 16, 16},
    {"OnlyReachedFromBehind", loop, 6, true, 16, 16},
    {"BetweenPops", loop, 16, true, 8, 0},
    {"InsideAnInstruction", loop, 7, false},
    {"WhereNoWayLeads", early, 8, false},
    // test edi,edi; je +1; push rax; nop: one way has pushed and the other has not
    {"WaysThatDisagree", "\x85\xFF\x74\x01\x50\x90"sv, 5, false},
    // test edi,edi; je +4; push rax; je +1; ret; nop: the same, where nothing else leads
    {"BranchesThatDisagree", "\x85\xFF\x74\x04\x50\x74\x01\xC3\x90"sv, 8, false},
    {"MoreBranchesThanAreFollowed", manyBranches, 75, false},
    // call +1; push rbx; nop: what is called returns
    {"CallIntoItself", "\xE8\x01\0\0\0\x53\x90"sv, 6, true, 8, 0},
    // sub rsp,rax; nop
    {"VariableRoom", "\x48\x29\xC4\x90"sv, 3, false},
    // mov rsp,r10; nop
    {"AnotherStack", "\x4C\x89\xD4\x90"sv, 3, false},
    // mov rbp,rdi; nop: the caller's frame pointer is nowhere to be found
    {"FrameNotSaved", "\x48\x89\xFD\x90"sv, 3, false},
    // pop rcx; nop: has given up its return address
    {"NoReturnAddress", "\x59\x90"sv, 1, false},
    // pushfq; push fs; sub rsp,0x80; add rsp,8; pop qword [rax]; nop
    {"OtherMoves", "\x9C\x0F\xA0\x48\x81\xEC\x80\0\0\0\x48\x83\xC4\x08\x8F\x00\x90"sv, 16, true,
     0x80, 0},
};

TEST(Code, SaysWhatItsFunctionHasOnTheStack) {
    for (const Function& function : functions) {
        SCOPED_TRACE(function.name);
        scripted::memory = {{codeBegin, {function.code.begin(), function.code.end()}}};
        const auto depth = findStackDepth(ownSpace, {codeBegin, codeBegin + function.code.size()},
                                          codeBegin + function.at);
        EXPECT_EQ(depth.has_value(), function.isUnderstood);
        EXPECT_EQ(depth.value_or(StackDepth()).depth, function.depth);
        EXPECT_EQ(depth.value_or(StackDepth()).savedFrame, function.savedFrame);
    }
}

struct Call {
    std::string_view code;
    bool isThere;
    std::uint64_t target = 0;  ///< where the code names it
};

// Every way to call, and what only looks like one; behind the seven bytes stand an entry of a
// linkage table and the word 0x1234 that it goes through.
TEST(Code, SaysWhetherACallLiesBeforeAnAddressAndWhereTo) {
    constexpr std::uint64_t after = codeBegin + 7;
    const Call calls[] = {
        {"\x90\x90\xE8\0\x01\0\0"sv, true, after + 0x100},
        {"\x90\x90\xE8\0\0\0\0\xFF\x25\x0A\0\0\0"sv, true, 0x1234},
        {"\x90\x90\xE8\0\0\0\0\xF3\x0F\x1E\xFA\xFF\x25\x06\0\0\0"sv, true, 0x1234},
        {"\x90\x90\xE8\0\0\0\0\xF3\x0F\x1E\xFA\xF2\xFF\x25\x05\0\0\0"sv, true, 0x1234},
        {"\x90\xFF\x15\x10\0\0\0"sv, true, 0x1234},  // through a word of the linkage table
        {"\x90\x90\x90\x90\x90\xFF\xD0"sv, true},    // rax
        {"\x90\x90\x90\x90\x90\xFF\x10"sv, true},    // [rax]
        {"\x90\x90\x90\x90\xFF\x50\x08"sv, true},    // [rax+8]
        {"\x90\xFF\x90\0\x01\0\0"sv, true},          // [rax+0x100]
        {"\x90\x90\x90\x90\xFF\x14\xC8"sv, true},    // [rax+rcx*8]
        {"\x90\x90\x90\xFF\x54\xC8\x01"sv, true},    // [rax+rcx*8+1]
        {"\xFF\x14\x25\0\x01\0\0"sv, true},          // [0x100]
        {"\x90\x90\x90\x90\x90\xFF\xE0"sv, false},   // jmp rax
        {"\x90\x90\x90\x90\x90\xFF\x14"sv, false},   // an operand is missing
        {"\x90\x90\x90\x90\xFF\xD0\x90"sv, false},   // not right before
    };
    for (const Call& call : calls) {
        SCOPED_TRACE(testing::PrintToString(call.code));
        std::vector<std::uint8_t> memory(call.code.begin(), call.code.end());
        memory.resize(7 + 16);
        memory.insert(memory.end(), {0x34, 0x12, 0, 0, 0, 0, 0, 0});
        scripted::memory = {{codeBegin, memory}};
        const CallTarget found = callBefore(ownSpace, after);
        EXPECT_EQ(found.site, call.isThere ? CallSite::Behind : CallSite::NotBehind);
        EXPECT_EQ(found.isNamed, call.target != 0);
        EXPECT_EQ(found.target, call.target);
    }
    EXPECT_EQ(callSiteAt(ownSpace, codeBegin + 6), CallSite::Unreadable);
    scripted::memory = {{codeBegin, {0x0F, 0x05, 0x0F}}};
    EXPECT_TRUE(isBehindSystemCall(ownSpace, codeBegin + 2));
    EXPECT_FALSE(isBehindSystemCall(ownSpace, codeBegin + 3));
}

}  // namespace
}  // namespace ThreadUtilities::cfi
