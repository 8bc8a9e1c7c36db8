// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <gmock/gmock.h>

#include <thread>

#include <ThreadUtilities/Threads.h>

#include "platform/notices.h"
#include "scripted_platform/current_script.h"
#include "scripted_platform/threads_script.h"

namespace ThreadUtilities {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ThreadList : public ::testing::Test {
 protected:
    void SetUp() override {
        scripted::threads = {};
        scripted::setCurrentProcessId(77);
        scripted::setCurrentThreadId(10);
        scripted::threads.systemInformation[77] = {10, 11};
        platform::onProcessAttach();
    }
    void TearDown() override {
        scripted::threads = {};
        scripted::setCurrentThreadId(0);
        platform::onProcessAttach();
    }

    static void attach(unsigned int threadId) {
        scripted::setCurrentThreadId(threadId);
        platform::onThreadAttach();
    }
    static void detach(unsigned int threadId) {
        scripted::setCurrentThreadId(threadId);
        platform::onThreadDetach();
    }
};

TEST_F(ThreadList, IsEnumeratedOnceAndThenFollowsTheNotices) {
    EXPECT_THAT(getThreadIds(), ElementsAre(10, 11));
    attach(13);
    attach(12);
    EXPECT_THAT(getThreadIds(), ElementsAre(10, 11, 13, 12));
    detach(11);
    detach(99);
    EXPECT_THAT(ThreadIds::getThreadIds(), ElementsAre(10, 13, 12));

    EXPECT_EQ(scripted::threads.systemInformationCalls, 1);
    EXPECT_EQ(scripted::threads.liveCalls, 0);
    // The loading thread stays the main thread, whoever asks.
    EXPECT_EQ(getThreadId(), 99U);
    EXPECT_EQ(getMainThreadId(), 10U);
    EXPECT_EQ(ThreadIds::getMainThreadId(), 10U);
}

TEST_F(ThreadList, AppendsWithoutLookingAndRemovesAll) {
    attach(11);
    attach(12);
    attach(11);
    EXPECT_THAT(getThreadIds(), ElementsAre(10, 11, 11, 12, 11));
    detach(11);
    EXPECT_THAT(getThreadIds(), ElementsAre(10, 12));
}

TEST_F(ThreadList, IsCorrectedBySystemWhereNoticesDoNotCoverIt) {
    scripted::threads.noticesCover = [](std::size_t) { return false; };
    scripted::threads.live = {10, 20, 13, 21};
    attach(13);
    EXPECT_THAT(getThreadIds(), ElementsAre(10, 13, 20, 21));

    // Nothing of a correction is kept: a late notice of a thread that was seen adds it once.
    attach(20);
    EXPECT_THAT(getThreadIds(), ElementsAre(10, 13, 20, 21));
    scripted::threads.noticesCover = [](std::size_t) { return true; };
    EXPECT_THAT(getThreadIds(), ElementsAre(10, 11, 13, 20));

    // A system that tells nothing leaves what is known.
    scripted::threads.noticesCover = [](std::size_t) { return false; };
    scripted::threads.live = {};
    EXPECT_THAT(getThreadIds(), ElementsAre(10, 11, 13, 20));
}

TEST_F(ThreadList, ANoticeDuringTheComparisonMakesItWorthless) {
    int comparisons = 0;
    // Thread 11 ends while its place is taken by one that nobody announced: the count is the same.
    scripted::threads.noticesCover = [&](std::size_t) {
        if (++comparisons == 1) {
            detach(11);
            return true;
        }
        return false;
    };
    scripted::threads.live = {10, 50};
    EXPECT_THAT(getThreadIds(), ElementsAre(10, 50));
    EXPECT_EQ(comparisons, 2);

    // Without an end of notices the list is corrected after some tries.
    scripted::threads.noticesCover = [&](std::size_t) {
        attach(60);
        detach(60);
        return true;
    };
    EXPECT_THAT(getThreadIds(), ElementsAre(10, 50));
}

TEST_F(ThreadList, AnyProcessIsEnumeratedAfreshWithTheSecondWayBehindTheFirst) {
    scripted::threads.systemInformation[5] = {50, 51};
    scripted::threads.snapshot[5] = {59};
    scripted::threads.systemInformation[6] = {};
    scripted::threads.snapshot[6] = {61, 60};
    scripted::threads.snapshot[0] = {1};

    EXPECT_THAT(getThreadIds(5), ElementsAre(50, 51));
    EXPECT_EQ(scripted::threads.snapshotCalls, 0);
    EXPECT_THAT(ThreadIds::getThreadIds(6), ElementsAre(61, 60));
    EXPECT_THAT(getThreadIds(7), IsEmpty());
    EXPECT_EQ(scripted::threads.snapshotCalls, 2);

    // The first way compares 0 like any other id, the second does not know it.
    EXPECT_THAT(getThreadIds(0), IsEmpty());
    EXPECT_EQ(scripted::threads.snapshotCalls, 2);
    scripted::threads.systemInformation[0] = {0};
    EXPECT_THAT(getThreadIds(0), ElementsAre(0));

    // Own process id included.
    scripted::threads.systemInformation[77] = {10, 70};
    EXPECT_THAT(getThreadIds(77), ElementsAre(10, 70));
    EXPECT_THAT(getThreadIds(), ElementsAre(10, 11));
}

TEST_F(ThreadList, AFailedEnumerationAtLoadLeavesTheNotices) {
    scripted::threads.systemInformation.clear();
    scripted::setCurrentThreadId(30);
    platform::onProcessAttach();
    EXPECT_THAT(getThreadIds(), IsEmpty());
    EXPECT_EQ(getMainThreadId(), 30U);
    attach(31);
    EXPECT_THAT(getThreadIds(), ElementsAre(31));
}

TEST(ThreadIdText, IsDecimalOrLowerCaseHexadecimalWithoutPadding) {
    EXPECT_EQ(getThreadIdString(4294967295), "4294967295");
    EXPECT_EQ(getThreadIdHexString(4294967295), "0xffffffff");
    EXPECT_EQ(getThreadIdHexString(0), "0x0");
    EXPECT_EQ(getPrimaryThreadId(255), 255U);
    scripted::setCurrentThreadId(0xABC);
    EXPECT_EQ(getThreadIdString(), "2748");
    EXPECT_EQ(getThreadIdHexString(), "0xabc");
    EXPECT_EQ(getPrimaryThreadId(), 0xABCU);
    scripted::setCurrentThreadId(0);
}

}  // namespace
}  // namespace ThreadUtilities
