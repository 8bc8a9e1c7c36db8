#include <ThreadUtilities/StackTrace.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "scripted_platform/current_script.h"
#include "scripted_platform/debugger_script.h"
#include "scripted_platform/thread_context_script.h"
#include "stack/frame_walk.h"

namespace ThreadUtilities {
namespace {

// The scripted walk finds as many frames as the context's rax says, the n-th of them n + 1 times
// the stack pointer, and needs the frame pointer.
int preparations = 0;
std::size_t ownFrames = 0;

}  // namespace

void prepareFrameWalks() noexcept {
    ++preparations;
}

WalkResult walkThread(const platform::ThreadContext& context, unsigned long long* frames,
                      std::size_t maxFrames) noexcept {
    const std::size_t found = std::min<std::size_t>(context.registers[platform::Rax], maxFrames);
    for (std::size_t i = 0; i < found; ++i) {
        frames[i] = (i + 1) * context.registers[platform::Rsp];
    }
    const bool known = (context.knownRegisters & platform::registerBit(platform::Rbp)) != 0;
    return {found, !known               ? WalkEnd::UnknownRegister
                   : found == maxFrames ? WalkEnd::FrameLimit
                                        : WalkEnd::EndOfStack};
}

std::size_t walkCallingThread(unsigned long long* frames, std::size_t maxFrames) noexcept {
    const std::size_t found = std::min(ownFrames, maxFrames);
    std::fill_n(frames, found, 0x1111);
    return found;
}

namespace {

using platform::ThreadContext;
using platform::VisitorAnswer;
using platform::VisitResult;

constexpr unsigned int self = 5;
constexpr unsigned int other = 6;
constexpr unsigned long long untouched = 0xDEAD;

ThreadContext contextOf(std::uint64_t frameCount, std::uint64_t firstFrame, bool standsStill) {
    ThreadContext context;
    context.registers[platform::Rax] = frameCount;
    context.registers[platform::Rsp] = firstFrame;
    context.standsStill = standsStill;
    return context;
}

class StackTrace : public testing::Test {
 protected:
    void SetUp() override {
        scripted::setCurrentThreadId(self);
        scripted::resetVisits();
        scripted::setDebuggerAttached(false);
        preparations = 0;
        ownFrames = 3;
    }
    void TearDown() override {
        scripted::setCurrentThreadId(0);
        scripted::setDebuggerAttached(false);
    }

    std::vector<unsigned long long> frames_ = std::vector<unsigned long long>(1000, untouched);
    unsigned long long capture(unsigned int threadId, unsigned long long maxFrames,
                               bool suspend = true) {
        return getStackTrace(threadId, frames_.data(), maxFrames, suspend);
    }
    [[nodiscard]] bool untouchedFrom(std::size_t index) const {
        return std::all_of(frames_.begin() + static_cast<std::ptrdiff_t>(index), frames_.end(),
                           [](auto frame) { return frame == untouched; });
    }
};

TEST_F(StackTrace, WithoutRoomForFramesNothingIsWrittenAndNobodyIsVisited) {
    scripted::setVisit(other, {{contextOf(3, 10, true)}});
    for (const unsigned int thread : {self, other}) {
        EXPECT_EQ(capture(thread, 0), 0U);
        EXPECT_EQ(getStackTrace(thread, nullptr, 8, true), 0U);
    }
    EXPECT_TRUE(untouchedFrom(0));
    EXPECT_TRUE(scripted::visits().empty());
}

TEST_F(StackTrace, AFailedVisitLeavesOneZero) {
    scripted::setVisit(8, {{}, VisitResult::NotAnswering});
    // The thread was looked at, and ended before that could be proven.
    scripted::setVisit(9, {{contextOf(4, 10, false)}, VisitResult::NoSuchThread});
    for (const unsigned int thread : {0U, 7U, 8U, 9U}) {
        frames_.assign(frames_.size(), untouched);
        EXPECT_EQ(capture(thread, 8), 0U) << thread;
        EXPECT_EQ(frames_[0], 0U) << thread;
        EXPECT_TRUE(untouchedFrom(1)) << thread;
    }
    EXPECT_EQ(scripted::visits().size(), 4U);
}

TEST_F(StackTrace, TheCallingThreadIsWalkedAndNeverVisited) {
    EXPECT_EQ(capture(self, 8, true), 3U);
    EXPECT_EQ(capture(self, 8, false), 3U);
    EXPECT_EQ(frames_[2], 0x1111U);
    EXPECT_TRUE(untouchedFrom(3));
    EXPECT_EQ(capture(self, 2), 2U);
    // The limit has 32 bits.
    EXPECT_EQ(capture(self, 0x1'0000'0002), 2U);
    EXPECT_EQ(capture(self, 0x1'0000'0000), 0U);
    EXPECT_EQ(frames_[0], 0U);
    EXPECT_TRUE(scripted::visits().empty());
}

TEST_F(StackTrace, AnotherThreadIsVisitedOnceAsAsked) {
    scripted::setVisit(other, {{contextOf(3, 10, true)}});
    EXPECT_EQ(capture(other, 8, true), 3U);
    EXPECT_EQ(capture(other, 1, false), 1U);
    EXPECT_EQ(frames_[0], 10U);
    EXPECT_EQ(frames_[2], 30U);
    EXPECT_TRUE(untouchedFrom(3));
    ASSERT_EQ(scripted::visits().size(), 2U);
    EXPECT_TRUE(scripted::visits()[0].suspend);
    EXPECT_FALSE(scripted::visits()[1].suspend);
    EXPECT_EQ(preparations, 2);
}

TEST_F(StackTrace, OnlyTheLastLookCounts) {
    ThreadContext blocked = contextOf(200, 7, false);
    blocked.knownRegisters = platform::registerBit(platform::Rip);
    scripted::setVisit(other, {{blocked, contextOf(5, 8, false), contextOf(2, 10, true)}});
    EXPECT_EQ(capture(other, 100), 2U);
    EXPECT_EQ(frames_[0], 10U);
    EXPECT_EQ(frames_[1], 20U);
    EXPECT_TRUE(untouchedFrom(2));
    EXPECT_EQ(scripted::visits()[0].answers,
              (std::vector{VisitorAnswer::RegisterMissing, VisitorAnswer::Enough,
                           VisitorAnswer::Enough}));
}

TEST_F(StackTrace, AThreadThatIsNotHeldIsCapturedInAnyDepth) {
    for (const std::size_t depth : {1U, 255U, 256U, 257U, 900U}) {
        frames_.assign(frames_.size(), untouched);
        scripted::setVisit(other, {{contextOf(depth, 10, false)}});
        ASSERT_EQ(capture(other, 950), depth);
        EXPECT_EQ(frames_[0], 10U);
        EXPECT_EQ(frames_[depth - 1], depth * 10);
        EXPECT_TRUE(untouchedFrom(depth));
    }
}

}  // namespace
}  // namespace ThreadUtilities
