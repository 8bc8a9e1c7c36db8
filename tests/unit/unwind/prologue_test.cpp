// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Where functions keep their frame pointers, by their first instructions.

#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <string_view>

#include "unwind/prologue.h"

namespace ThreadUtilities::cfi {
namespace {

using namespace std::string_view_literals;

struct Prologue {
    const char* name;
    std::string_view code;
    bool isUnderstood;
    std::uint64_t distance = 0;
    std::uint64_t slack = 0;
};

void PrintTo(const Prologue& prologue, std::ostream* out) {
    *out << prologue.name;
}

class Prologues : public testing::TestWithParam<Prologue> {};

TEST_P(Prologues, SayWhereTheFramePointerIs) {
    const Prologue& prologue = GetParam();
    const ByteCursor code(prologue.code.data(), prologue.code.size());
    const auto place = findFramePointer(code, prologue.code.size());
    ASSERT_EQ(place.has_value(), prologue.isUnderstood);
    if (place) {
        EXPECT_EQ(place->distance, prologue.distance);
        EXPECT_EQ(place->slack, prologue.slack);
    }
}

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
    // push rbp; mov rbp,rsp; (no instruction)
    {"NoCode", "\x55\x48\x89\xE5\x06"sv, false},
};
INSTANTIATE_TEST_SUITE_P(Code, Prologues, testing::ValuesIn(prologues),
                         [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace ThreadUtilities::cfi
