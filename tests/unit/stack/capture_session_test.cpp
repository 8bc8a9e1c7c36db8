#include "stack/capture_session.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "scripted_platform/clock_script.h"
#include "scripted_platform/current_script.h"
#include "scripted_platform/debugger_script.h"
#include "scripted_platform/thread_clock_script.h"
#include "scripted_platform/thread_context_script.h"
#include "stack/frame_walk.h"

namespace ThreadUtilities {

void prepareFrameWalks() noexcept {}

std::size_t walkCallingThread(unsigned long long*, std::size_t) noexcept {
    return 0;
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

constexpr unsigned int target = 6;

scripted::VisitScript visitOf(std::uint64_t frameCount, std::uint64_t firstFrame) {
    platform::ThreadContext context;
    context.registers[platform::Rax] = frameCount;
    context.registers[platform::Rsp] = firstFrame;
    return {{context}, platform::VisitResult::Visited};
}

class CaptureSessions : public testing::Test {
 protected:
    void SetUp() override {
        scripted::setCurrentThreadId(5);
        scripted::visitScripts.clear();
        scripted::visits = 0;
        scripted::threadRunTimes.clear();
        scripted::resetClock();
        scripted::debuggerAttached = false;
    }
    void TearDown() override {
        SetUp();
        scripted::setCurrentThreadId(0);
    }

    CaptureSession session_{16};
};

TEST_F(CaptureSessions, AThreadIsVisitedAgainOnlyWhenItHasRun) {
    scripted::visitScripts[target] = visitOf(3, 10);
    scripted::threadRunTimes[target] = 100;
    for (int round = 0; round < 5; ++round) {
        ASSERT_EQ(session_.capture(target), 3U);
        EXPECT_EQ(session_.frames()[2], 30U);
    }
    EXPECT_EQ(scripted::visits, 1);

    scripted::visitScripts[target] = visitOf(2, 40);
    scripted::threadRunTimes[target] = 101;
    EXPECT_EQ(session_.capture(target), 2U);
    EXPECT_EQ(session_.frames()[1], 80U);
    EXPECT_EQ(scripted::visits, 2);
}

TEST_F(CaptureSessions, KeepThreadsApart) {
    for (const unsigned int thread : {7U, 8U, 7U, 8U}) {
        scripted::visitScripts[thread] = visitOf(thread, 10);
        scripted::threadRunTimes[thread] = 100;
        EXPECT_EQ(session_.capture(thread), thread);
    }
    EXPECT_EQ(scripted::visits, 2);
}

TEST_F(CaptureSessions, VisitEveryTimeWithoutAClockOrAnAnswer) {
    scripted::visitScripts[target] = visitOf(3, 10);
    EXPECT_EQ(session_.capture(target), 3U);
    EXPECT_EQ(session_.capture(target), 3U);
    EXPECT_EQ(scripted::visits, 2);

    scripted::threadRunTimes[target] = 100;
    scripted::visitScripts[target] = {{}, platform::VisitResult::NotAnswering};
    EXPECT_EQ(session_.capture(target), 0U);
    scripted::visitScripts[target] = visitOf(3, 10);
    EXPECT_EQ(session_.capture(target), 3U);
}

TEST_F(CaptureSessions, NoticeADebuggerWithinAMillisecond) {
    scripted::visitScripts[target] = visitOf(3, 10);
    scripted::threadRunTimes[target] = 100;
    ASSERT_EQ(session_.capture(target), 3U);
    scripted::debuggerAttached = true;
    scripted::advanceClock(std::chrono::milliseconds(1));
    EXPECT_EQ(session_.capture(target), 0U);
    scripted::debuggerAttached = false;
    scripted::advanceClock(std::chrono::milliseconds(1));
    EXPECT_EQ(session_.capture(target), 3U);
}

}  // namespace
}  // namespace ThreadUtilities
