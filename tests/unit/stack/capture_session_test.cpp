#include "stack/capture_session.h"

#include <gtest/gtest.h>

#include "scripted_platform/clock_script.h"
#include "scripted_platform/current_script.h"
#include "scripted_platform/debugger_script.h"
#include "scripted_platform/thread_clock_script.h"
#include "scripted_platform/thread_context_script.h"

namespace ThreadUtilities {
namespace {

constexpr unsigned int target = 6;

// The scripted walk finds rax frames, the n-th of them n + 1 times rsp.
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
        scripted::resetVisits();
        scripted::resetThreadRunTimes();
        scripted::resetClock();
        scripted::setDebuggerAttached(false);
    }
    void TearDown() override {
        SetUp();
        scripted::setCurrentThreadId(0);
    }

    CaptureSession session_{16};
};

TEST_F(CaptureSessions, AThreadIsVisitedAgainOnlyWhenItHasRun) {
    scripted::setVisit(target, visitOf(3, 10));
    scripted::setThreadRunTime(target, 100);
    for (int round = 0; round < 5; ++round) {
        ASSERT_EQ(session_.capture(target), 3U);
        EXPECT_EQ(session_.frames()[2], 30U);
    }
    EXPECT_EQ(scripted::visits().size(), 1U);

    scripted::setVisit(target, visitOf(2, 40));
    scripted::setThreadRunTime(target, 101);
    EXPECT_EQ(session_.capture(target), 2U);
    EXPECT_EQ(session_.frames()[1], 80U);
    EXPECT_EQ(scripted::visits().size(), 2U);
}

TEST_F(CaptureSessions, KeepThreadsApart) {
    for (const unsigned int thread : {7U, 8U, 7U, 8U}) {
        scripted::setVisit(thread, visitOf(thread, 10));
        scripted::setThreadRunTime(thread, 100);
        EXPECT_EQ(session_.capture(thread), thread);
    }
    EXPECT_EQ(scripted::visits().size(), 2U);
}

TEST_F(CaptureSessions, VisitEveryTimeWithoutAClockOrAnAnswer) {
    scripted::setVisit(target, visitOf(3, 10));
    EXPECT_EQ(session_.capture(target), 3U);
    EXPECT_EQ(session_.capture(target), 3U);
    EXPECT_EQ(scripted::visits().size(), 2U);

    scripted::setThreadRunTime(target, 100);
    scripted::setVisit(target, {{}, platform::VisitResult::NotAnswering});
    EXPECT_EQ(session_.capture(target), 0U);
    scripted::setVisit(target, visitOf(3, 10));
    EXPECT_EQ(session_.capture(target), 3U);
}

TEST_F(CaptureSessions, NoticeADebuggerWithinAMillisecond) {
    scripted::setVisit(target, visitOf(3, 10));
    scripted::setThreadRunTime(target, 100);
    ASSERT_EQ(session_.capture(target), 3U);
    scripted::setDebuggerAttached(true);
    scripted::advanceClock(std::chrono::milliseconds(1));
    EXPECT_EQ(session_.capture(target), 0U);
    scripted::setDebuggerAttached(false);
    scripted::advanceClock(std::chrono::milliseconds(1));
    EXPECT_EQ(session_.capture(target), 3U);
}

}  // namespace
}  // namespace ThreadUtilities
