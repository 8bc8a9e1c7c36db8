// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// What functions have on the stack, by their instructions.

#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <string_view>
#include <vector>

#include "scripted_platform/memory_script.h"
#include "unwind/code_depth.h"

namespace ThreadUtilities::cfi {
namespace {

using namespace std::string_view_literals;

constexpr std::uint64_t functionBegin = 0x401000;

struct Function {
    const char* name;
    std::string_view code;
    std::uint64_t at;  ///< the instruction where the thread stands
    bool isUnderstood;
    std::uint64_t depth = 0;
    std::uint64_t savedFrame = 0;
};

void PrintTo(const Function& function, std::ostream* out) {
    *out << function.name;
}

class Functions : public testing::TestWithParam<Function> {};

TEST_P(Functions, HaveOnTheStackWhatTheyPushed) {
    const Function& function = GetParam();
    scripted::memory = {{functionBegin, {function.code.begin(), function.code.end()}}};
    const auto depth = findStackDepth({functionBegin, functionBegin + function.code.size()},
                                      functionBegin + function.at);
    ASSERT_EQ(depth.has_value(), function.isUnderstood);
    if (depth) {
        EXPECT_EQ(depth->depth, function.depth);
        EXPECT_EQ(depth->savedFrame, function.savedFrame);
    }
}

// push rbx; push rbp; xor ebp,ebp; jmp +4; inc rax; nop; dec rdx; jne to the inc; pop rbp; pop rbx;
// ret: the loop is entered in its middle.
constexpr auto loop = "\x53\x55\x31\xED\xEB\x04\x48\xFF\xC0\x90\x48\xFF\xCA\x75\xF7\x5D\x5B\xC3"sv;
// test edi,edi; je +2; push rax; pop rax; nop; ret; ud2
constexpr auto early = "\x85\xFF\x74\x02\x50\x58\x90\xC3\x0F\x0B"sv;

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
INSTANTIATE_TEST_SUITE_P(Code, Functions, testing::ValuesIn(functions),
                         [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace ThreadUtilities::cfi
