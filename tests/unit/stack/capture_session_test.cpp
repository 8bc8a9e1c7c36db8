// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "stack/capture_session.h"

#include <ThreadUtilities/StackTrace.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>

#include "platform/clock.h"
#include "scripted_platform/script.h"
#include "unwind/frame_walk.h"

namespace ThreadUtilities {

void prepareFrameWalks() noexcept {}
bool searchForWalks() noexcept {
    return false;
}

std::size_t walkCallingThread(unsigned long long* frames, std::size_t) noexcept {
    EXPECT_EQ(frames[0], 0U);
    frames[0] = 77;
    return 1;
}

// The scripted walk finds rax frames, the n-th of them n + 1 times rsp.
WalkResult walkThread(const platform::ThreadContext& context, unsigned long long* frames,
                      std::size_t maxFrames) noexcept {
    const std::size_t found = std::min<std::size_t>(context.registers[platform::Rax], maxFrames);
    for (std::size_t i = 0; i < found; ++i) {
        frames[i] = (i + 1) * context.registers[platform::Rsp];
    }
    return {found, WalkEnd::EndOfStack};
}

namespace {

constexpr unsigned int self = 5;
constexpr unsigned int target = 6;

constexpr platform::ThreadRuns firstRun{1, 100, 10};
constexpr platform::ThreadRuns secondRun{2, 150, 10};

scripted::VisitScript visitOf(std::uint64_t frameCount, std::uint64_t firstFrame,
                              std::optional<platform::ThreadRuns> atRest) {
    platform::ThreadContext context;
    context.registers[platform::Rax] = frameCount;
    context.registers[platform::Rsp] = firstFrame;
    return {{context}, platform::VisitResult::Visited, atRest};
}

class CaptureSessions : public testing::Test {
 protected:
    void SetUp() override {
        scripted::currentThreadId = self;
        scripted::visitScripts.clear();
        scripted::visits = 0;
        scripted::threadRuns.clear();
        scripted::resetClock();
        scripted::debuggerAttached = false;
    }
    void TearDown() override {
        SetUp();
        scripted::currentThreadId = 0;
    }

    int visitsFor(unsigned int thread) {
        const int before = scripted::visits;
        EXPECT_EQ(session_.capture(thread), 3U);
        EXPECT_EQ(session_.frames()[2], 30U);
        EXPECT_EQ(session_.isUnchanged(), scripted::visits == before);
        return scripted::visits - before;
    }

    // One with all its files, one with one.
    static constexpr std::size_t witnesses = 2;
    CaptureSession session_{16, std::chrono::steady_clock::time_point::max(),
                            platform::RunWitness::mostFiles + 1};
};

TEST_F(CaptureSessions, AThreadIsVisitedAgainOnlyWhenItHasRunSinceItWasAtRest) {
    scripted::visitScripts[target] = visitOf(3, 10, firstRun);
    scripted::threadRuns[target] = firstRun;
    EXPECT_EQ(visitsFor(target), 1);
    EXPECT_EQ(visitsFor(target), 0);
    EXPECT_EQ(visitsFor(target), 0);

    // It ran again while it was being captured: what was found is older.
    scripted::threadRuns[target] = secondRun;
    EXPECT_EQ(visitsFor(target), 1);
    EXPECT_EQ(visitsFor(target), 1);
    scripted::visitScripts[target] = visitOf(3, 10, secondRun);
    EXPECT_EQ(visitsFor(target), 1);
    EXPECT_EQ(visitsFor(target), 0);

    // It was stopped, and ran on in the same turn.
    scripted::visitScripts[target] = visitOf(3, 10, std::nullopt);
    scripted::threadRuns[target] = {3, 200, 10};
    EXPECT_EQ(visitsFor(target), 1);
    EXPECT_EQ(visitsFor(target), 1);
}

TEST_F(CaptureSessions, ARunThatTookNoTimeIsOverlookedForFiveMillisecondsAtMost) {
    scripted::visitScripts[target] = visitOf(3, 10, firstRun);
    scripted::threadRuns[target] = firstRun;
    EXPECT_EQ(visitsFor(target), 1);
    EXPECT_EQ(visitsFor(target), 0) << "proven now";
    scripted::threadRuns[target].count += 1;
    scripted::advanceClock(std::chrono::milliseconds(5) - std::chrono::nanoseconds(1));
    EXPECT_EQ(visitsFor(target), 0);
    scripted::advanceClock(std::chrono::nanoseconds(1));
    EXPECT_EQ(visitsFor(target), 1);
}

TEST_F(CaptureSessions, KeepThreadsApartAndNoMoreFilesThanTheyMay) {
    for (const unsigned int thread : {7U, 8U, 9U, 7U, 8U, 9U}) {
        scripted::visitScripts[thread] = visitOf(thread, 10, firstRun);
        scripted::threadRuns[thread] = firstRun;
        EXPECT_EQ(session_.capture(thread), thread);
    }
    EXPECT_EQ(scripted::visits, 3);
    EXPECT_EQ(scripted::openWitnesses, static_cast<int>(witnesses));
    // Threads that come and go give theirs back.
    scripted::threadRuns.clear();
    bool allWereGivenBack = false;
    for (unsigned int thread = 100; thread < 1000; ++thread) {
        scripted::visitScripts[thread] = visitOf(3, 10, firstRun);
        session_.capture(thread);
        allWereGivenBack = allWereGivenBack || scripted::openWitnesses == 1;  // the new one's
    }
    EXPECT_TRUE(allWereGivenBack);
}

// Its witness would say nothing of another thread that has its id by now, nor would its frames.
TEST_F(CaptureSessions, ForgetAnEndedThreadAndTakeItsFileForOthers) {
    CaptureSession session(16, std::chrono::steady_clock::time_point::max(), 1);
    for (const unsigned int thread : {7U, 8U}) {
        scripted::visitScripts = {{thread, visitOf(3, 10, firstRun)}};
        session.capture(thread);
        EXPECT_EQ(scripted::openWitnesses, 1);
        scripted::visitScripts.clear();
        session.capture(thread);
        EXPECT_EQ(scripted::openWitnesses, 0);
    }
    scripted::visitScripts[target] = visitOf(3, 10, firstRun);
    EXPECT_EQ(visitsFor(target), 1);
    scripted::visitScripts[target] = visitOf(3, 10, std::nullopt);
    EXPECT_EQ(visitsFor(target), 1) << "ended by what its witness says";
    scripted::threadRuns[target] = firstRun;
    EXPECT_EQ(visitsFor(target), 1) << "another, whose runs look the same";
}

TEST_F(CaptureSessions, AnAnswerThatFailedIsNotKept) {
    scripted::threadRuns[target] = firstRun;
    scripted::visitScripts[target] = {{}, platform::VisitResult::NotAnswering};
    EXPECT_EQ(session_.capture(target), 0U);
    scripted::visitScripts[target] = visitOf(0, 10, firstRun);
    EXPECT_EQ(session_.capture(target), 0U);
    scripted::visitScripts[target] = visitOf(3, 10, firstRun);
    EXPECT_EQ(visitsFor(target), 1);
    EXPECT_TRUE(scripted::lastVisit.suspend);
}

TEST_F(CaptureSessions, TheOwnThreadIsNotVisitedAndAFailureIsToldInTheFirstFrame) {
    EXPECT_EQ(session_.capture(self), 1U);
    EXPECT_EQ(session_.frames()[0], 77U);
    EXPECT_EQ(scripted::visits, 0);
    for (const unsigned int thread : {self, target}) {
        unsigned long long frame = 1;
        scripted::debuggerAttached = true;
        EXPECT_EQ(getStackTrace(thread, &frame, 1, true), 0U);
        EXPECT_EQ(frame, 1U) << "untouched under a debugger";
        scripted::debuggerAttached = false;
        EXPECT_EQ(getStackTrace(thread, &frame, 0, true), 0U);
        EXPECT_EQ(getStackTrace(thread, nullptr, 1, true), 0U);
        EXPECT_EQ(frame, 1U);
        EXPECT_EQ(getStackTrace(thread, &frame, 1, true), thread == self ? 1U : 0U);
        EXPECT_EQ(frame, thread == self ? 77U : 0U);
    }
}

TEST_F(CaptureSessions, WaitForASecondAndNoLongerThanTheRun) {
    const auto now = platform::steadyNow();
    scripted::visitScripts[target] = visitOf(3, 10, std::nullopt);
    EXPECT_EQ(visitsFor(target), 1);
    EXPECT_EQ(scripted::lastVisit.deadline - now, std::chrono::seconds(1));
    CaptureSession session(16, now + std::chrono::milliseconds(5), 0);
    EXPECT_EQ(session.capture(target), 3U);
    EXPECT_EQ(scripted::lastVisit.deadline - now, std::chrono::milliseconds(5));
}

TEST_F(CaptureSessions, NoticeADebuggerWithinTenMilliseconds) {
    scripted::visitScripts[target] = visitOf(3, 10, firstRun);
    scripted::threadRuns[target] = firstRun;
    ASSERT_EQ(session_.capture(target), 3U);
    scripted::debuggerAttached = true;
    scripted::advanceClock(std::chrono::milliseconds(10));
    EXPECT_EQ(session_.capture(target), 0U);
    scripted::debuggerAttached = false;
    scripted::advanceClock(std::chrono::milliseconds(10));
    EXPECT_EQ(session_.capture(target), 3U);
}

}  // namespace
}  // namespace ThreadUtilities
