// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <gmock/gmock.h>

#include <ThreadUtilities/Threads.h>

#include "platform/notices.h"
#include "scripted_platform/script.h"
#include "threads/thread_list.h"

namespace ThreadUtilities {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ThreadList : public ::testing::Test {
 protected:
    ThreadList() {
        scripted::threads = {};
        scripted::threads.systemInformation[scripted::ownProcessId] = {10, 11};
        attachProcess(10);
    }
    ~ThreadList() override {
        scripted::threads = {};
        attachProcess(0);
    }

    static void attachProcess(unsigned int threadId) {
        scripted::currentThreadId = threadId;
        platform::onProcessAttach();
    }
    static void attach(unsigned int threadId) {
        scripted::currentThreadId = threadId;
        platform::onThreadAttach();
    }
    static void detach(unsigned int threadId) { platform::onThreadDetach(threadId); }
};

TEST_F(ThreadList, IsEnumeratedOnceAndThenFollowsTheNotices) {
    EXPECT_THAT(getThreadIds(), ElementsAre(10, 11));
    attach(13);
    attach(12);
    attach(13);
    EXPECT_THAT(getThreadIds(), ElementsAre(10, 11, 13, 12, 13)) << "appended without looking";
    detach(13);
    detach(99);
    EXPECT_THAT(ThreadIds::getThreadIds(), ElementsAre(10, 11, 12));

    EXPECT_EQ(scripted::threads.systemInformationCalls, 1);
    EXPECT_EQ(scripted::threads.liveCalls, 0);
    // The loading thread stays the main thread, whichever starts or asks.
    EXPECT_EQ(getThreadId(), 13U);
    EXPECT_EQ(getMainThreadId(), 10U);
}

TEST_F(ThreadList, IsCorrectedBySystemWhereNoticesDoNotCoverIt) {
    scripted::threads.noticesCover = [](std::size_t) { return false; };
    scripted::threads.live = {10, 20, 13, 21};
    attach(13);
    EXPECT_THAT(getThreadIds(), ElementsAre(10, 13, 20, 21));
    // Nothing of a correction is kept, and a system that tells nothing leaves what is known.
    scripted::threads.live = {};
    EXPECT_THAT(getThreadIds(), ElementsAre(10, 11, 13));
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

    // Without an end of notices the list is corrected after some tries; with one it is told.
    int notices = 0;
    int lastNotice = 1000;
    scripted::threads.noticesCover = [&](std::size_t) {
        if (++notices <= lastNotice) {
            attach(60);
        }
        return true;
    };
    EXPECT_THAT(getThreadIds(), ElementsAre(10, 50));
    lastNotice = notices + 1;
    EXPECT_THAT(getThreadIds(), ElementsAre(10, 60, 60, 60, 60));
}

TEST_F(ThreadList, AnyProcessIsEnumeratedAfreshWithTheSecondWayBehindTheFirst) {
    scripted::threads.systemInformation[5] = {50, 51};
    scripted::threads.snapshot = {{5, {59}}, {6, {61, 60}}, {0, {1}}};
    scripted::threads.systemInformation[scripted::ownProcessId] = {10, 70};
    EXPECT_THAT(getThreadIds(5), ElementsAre(50, 51));
    EXPECT_THAT(getThreadIds(scripted::ownProcessId), ElementsAre(10, 70));
    EXPECT_EQ(scripted::threads.snapshotCalls, 0);
    EXPECT_THAT(ThreadIds::getThreadIds(6), ElementsAre(61, 60));
    EXPECT_THAT(getThreadIds(7), IsEmpty());
    EXPECT_THAT(getThreadIds(0), IsEmpty()) << "which the second way does not know";
    EXPECT_THAT(getThreadIds(), ElementsAre(10, 11)) << "the own list is another";
}

TEST_F(ThreadList, AFailedEnumerationAtLoadLeavesTheNotices) {
    scripted::threads.systemInformation.clear();
    attachProcess(30);
    EXPECT_EQ(getMainThreadId(), 30U);
    attach(31);
    EXPECT_THAT(getThreadIds(), ElementsAre(31));
}

TEST_F(ThreadList, AStartWakesThoseWhoWaitForOneWhereStartsAreHeardOf) {
    const auto sleeps = [] {
        getThreadIds();
        return sleepUntilThreadStarts(announcedStarts(), {});
    };
    scripted::threads.duringSleep = [] { attach(13); };
    scripted::threads.noticesCover = [](std::size_t) { return false; };
    EXPECT_FALSE(sleeps());
    scripted::threads.noticesCover = [](std::size_t) { return true; };
    EXPECT_TRUE(sleeps());
    EXPECT_EQ(scripted::threads.wakeUps, 1);
    attach(14);
    EXPECT_EQ(scripted::threads.wakeUps, 1) << "nobody sleeps";
}

TEST(ThreadIdText, IsDecimalOrLowerCaseHexadecimalWithoutPadding) {
    EXPECT_EQ(getThreadIdHexString(0), "0x0");
    EXPECT_EQ(getPrimaryThreadId(255), 255U);
    scripted::currentThreadId = 4294967295;
    EXPECT_EQ(getThreadIdString(), "4294967295");
    EXPECT_EQ(getThreadIdHexString(), "0xffffffff");
    EXPECT_EQ(getPrimaryThreadId(), 4294967295);
    scripted::currentThreadId = 0;
}

}  // namespace
}  // namespace ThreadUtilities
