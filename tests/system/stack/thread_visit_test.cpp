// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/StackTrace.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>

#include <array>
#include <csignal>

#include "platform/thread_context.h"
#include "support/target_thread.h"

// Visits to threads that are not there, or that do not answer.

namespace ThreadUtilities {
namespace {

using platform::ThreadContext;
using platform::VisitorAnswer;
using platform::VisitResult;

std::atomic<int> visits{0};

VisitResult visit(unsigned int threadId) {
    visits = 0;
    const auto look = [](const ThreadContext&, platform::VisitRoom&) noexcept {
        ++visits;
        return VisitorAnswer::Enough;
    };
    std::array<unsigned long long, 1> frames{};
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    return platform::visitThreadContext({threadId, true, look, deadline}, frames).result;
}

TEST(ThreadVisit, ThreadsThatAreNotOursDoNotExist) {
    unsigned int ended = 0;
    {
        TargetThread target([](const auto&) {});
        ended = target.id();
    }
    for (const unsigned int id : {0U, 1U, ended, 0x7fffffffU, 0x80000000U, 0xffffffffU}) {
        EXPECT_EQ(visit(id), VisitResult::NoSuchThread) << id;
        EXPECT_EQ(visits, 0) << id;
    }
}

// As no mask that the C library makes can.
void blockEverySignal(bool block) {
    const std::uint64_t everything = ~std::uint64_t{0};
    syscall(SYS_rt_sigprocmask, block ? SIG_BLOCK : SIG_UNBLOCK, &everything, nullptr,
            sizeof(everything));
}

TEST(ThreadVisit, AThreadThatBlocksTheSignalIsGivenUpAndNeverVisitedLate) {
    std::atomic<bool> blocked{false};
    std::atomic<bool> unblock{false};
    std::atomic<bool> unblocked{false};
    TargetThread target([&](const std::atomic<bool>& stop) {
        blockEverySignal(true);
        blocked = true;
        spinUntil(unblock);
        blockEverySignal(false);
        unblocked = true;
        spinUntil(stop);
    });
    ASSERT_TRUE(eventually([&] { return blocked.load(); }));
    EXPECT_EQ(visit(target.id()), VisitResult::NotAnswering);
    unblock = true;
    ASSERT_TRUE(eventually([&] { return unblocked.load(); }));
    EXPECT_EQ(visits, 0);
    EXPECT_EQ(visit(target.id()), VisitResult::Visited);
    EXPECT_EQ(visits, 1);
}

// A caller whose own caller can be found by rbx alone, which nobody below it saves. The innermost
// function calls `poll` without a descriptor, until the time in rdx is over.
asm(".pushsection .text\n"
    "pollAlone:\n\t"
    ".cfi_startproc\n\t"
    "movl $7, %eax\n\t"
    "xorl %edi, %edi\n\t"
    "xorl %esi, %esi\n\t"
    "syscall\n\t"
    "ret\n\t"
    ".cfi_endproc\n"
    ".globl pollBehindARegister\n"
    "pollBehindARegister:\n\t"
    ".cfi_startproc\n\t"
    "pushq %rbx\n\t"
    ".cfi_def_cfa_offset 16\n\t"
    ".cfi_offset rbx, -16\n\t"
    "movq %rsp, %rbx\n\t"
    ".cfi_def_cfa_register rbx\n\t"
    "andq $-64, %rsp\n\t"
    "movl $10, %edx\n\t"
    "call pollAlone\n\t"
    "movq %rbx, %rsp\n\t"
    ".cfi_def_cfa_register rsp\n\t"
    "popq %rbx\n\t"
    ".cfi_def_cfa_offset 8\n\t"
    "ret\n\t"
    ".cfi_endproc\n\t"
    ".popsection");
extern "C" void pollBehindARegister();

TEST(ThreadVisit, WhatWasFoundOfAThreadAtRestStandsWhereItTakesNoSignal) {
    std::atomic<bool> isBlocked{false};
    TargetThread target([&](const std::atomic<bool>& stop) {
        blockEverySignal(true);
        isBlocked = true;
        while (!stop) {
            pollBehindARegister();
        }
        blockEverySignal(false);
    });
    ASSERT_TRUE(eventually([&] { return isBlocked.load(); }));
    constexpr unsigned long long untouched = 0xDEAD;
    std::array<unsigned long long, 4> frames{};
    ASSERT_TRUE(eventually([&] {
        frames.fill(untouched);
        return getStackTrace(target.id(), frames.data(), frames.size(), true) == 1;
    }));
    const auto begin = reinterpret_cast<unsigned long long>(&pollBehindARegister);
    EXPECT_TRUE(begin < frames[0] && frames[0] < begin + 32);
    EXPECT_EQ(frames[1], untouched);
}

}  // namespace
}  // namespace ThreadUtilities
