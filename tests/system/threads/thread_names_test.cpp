// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <fstream>

#include <ThreadUtilities/Threads.h>

#include "support/fork_child.h"
#include "support/parked_thread.h"

/// The moments of a change that take long, as bits.
static thread_local unsigned int longMoments = 0;

// A few looks of a reader.
static void spinIn(unsigned int moment) {
    const int turns = (longMoments >> moment & 1) != 0 ? 20'000 : 0;
    for (int turn = 0; turn < turns; ++turn) {
        asm volatile("");
    }
}

// In front of the C library's.
extern "C" int prctl(int option, ...) noexcept {
    va_list arguments;
    va_start(arguments, option);
    const auto argument = va_arg(arguments, unsigned long);
    va_end(arguments);
    spinIn(0);
    if ((longMoments & 2) != 0 && option == PR_SET_NAME) {
        // Whoever reads a name while the kernel writes it may get parts of two.
        syscall(SYS_prctl, option, "parts of two", 0, 0, 0);
        spinIn(1);
    }
    const auto result = static_cast<int>(syscall(SYS_prctl, option, argument, 0, 0, 0));
    spinIn(2);
    return result;
}

namespace ThreadUtilities {
namespace {

std::string kernelName(unsigned int threadId) {
    std::ifstream file("/proc/self/task/" + std::to_string(threadId) + "/comm");
    std::string name;
    std::getline(file, name);
    return name;
}

TEST(ThreadNamesOnLinux, AreKeptWholeWhileTheKernelGetsWholeCharacters) {
    struct Case {
        std::string name;
        std::string inKernel;
    };
    const std::string u = "\xC3\xBC";             // 2 bytes
    const std::string face = "\xF0\x9F\x98\x80";  // 4 bytes
    for (const Case& oneCase : {Case{"exactly15bytes!", "exactly15bytes!"},
                                Case{"12345678901234" + u + "end", "12345678901234"},
                                Case{"1234567890123" + u + u, "1234567890123" + u},
                                Case{"123456789012" + face, "123456789012"},
                                Case{std::string(10000, 'n'), std::string(15, 'n')}}) {
        const ParkedThread thread([&] {
            setThreadName(oneCase.name);
            EXPECT_EQ(getThreadName(), oneCase.name);
        });
        EXPECT_EQ(getThreadName(thread.id()), oneCase.name);
        EXPECT_EQ(kernelName(thread.id()), oneCase.inKernel);
    }
    const ParkedThread malformed(
        [] { setThreadName(std::string("0123456789 \xFF 456\0after", 20)); });
    EXPECT_EQ(getThreadName(malformed.id()), "0123456789 \xEF\xBF\xBD 456");
    EXPECT_EQ(kernelName(malformed.id()), "0123456789 \xEF\xBF\xBD ");
}

TEST(ThreadNamesOnLinux, OneThatNobodyGaveReadsEmpty) {
    EXPECT_EQ(getThreadName(), "");
    ParkedThread named([&] {
        const std::string before = kernelName(getThreadId());
        setThreadName("creator");
        const ParkedThread child([] { EXPECT_EQ(getThreadName(), ""); });
        EXPECT_EQ(kernelName(child.id()), "creator") << "inherited";
        EXPECT_EQ(getThreadName(child.id()), "");
        setThreadName("");
        EXPECT_EQ(getThreadName(), "");
        EXPECT_EQ(kernelName(getThreadId()), before);
        setThreadName("again");
    });
    const unsigned int ended = named.id();
    EXPECT_EQ(getThreadName(ended), "again");
    named.end();
    EXPECT_EQ(getThreadName(ended), "");
    EXPECT_EQ(getThreadName(0), "");
    EXPECT_EQ(getThreadName(0xFFFFFFFF), "");
}

TEST(ThreadNamesOnLinux, ThoseThatOtherCodeGivesAreSeen) {
    ParkedThread thread([] { setThreadName("given by the library, and long"); });
    ASSERT_EQ(pthread_setname_np(thread.handle(), "by others"), 0);
    EXPECT_EQ(getThreadName(thread.id()), "by others");
    // Cut within a character by the kernel.
    const ParkedThread cut([] { prctl(PR_SET_NAME, "12345678901234\xC3\xBC"); });
    EXPECT_EQ(getThreadName(cut.id()), "12345678901234\xEF\xBF\xBD");
}

// The creator may name a thread before that thread has run at all.
TEST(ThreadNamesOnLinux, ANameGivenRightAfterTheStartIsNotTakenForAnInheritedOne) {
    for (int count = 0; count < 300; ++count) {
        std::latch stop{1};
        std::thread thread([&] { stop.wait(); });
        pthread_setname_np(thread.native_handle(), "early bird");
        std::vector<unsigned int> ids = getThreadIds();
        std::erase_if(ids, [](unsigned int id) { return kernelName(id) != "early bird"; });
        ASSERT_EQ(ids.size(), 1U);
        ASSERT_EQ(getThreadName(ids.front()), "early bird");
        stop.count_down();
        thread.join();
    }
}

TEST(ThreadNamesOnLinux, OtherProcessesShowTheKernelsAndKeepTheirOwn) {
    const ParkedThread thread([] {
        setThreadName("the thread that forks, by its whole name");
        ForkChild child([] {
            return getThreadName() == "the thread that forks, by its whole name" &&
                   getThreadName(getThreadId()) == getThreadName();
        });
        EXPECT_EQ(getThreadName(child.id()), "the thread that");
        EXPECT_TRUE(child.endedWell());
    });
}

// Readers meet every moment of a change, which the hook above makes long enough, and pass over
// those that it does not: they get one of the names that the thread gave itself, whole.
TEST(ThreadNamesOnLinux, ReadersSeeTheNameBeforeOrAfterAChange) {
    const std::string even(40, 'e');
    const std::string odd(70, 'o');
    std::atomic<unsigned int> id{0};
    std::atomic<bool> isOver{false};
    std::jthread changing([&] {
        setThreadName(even);
        id = getThreadId();
        for (unsigned int change = 0; change < 6000; ++change) {
            longMoments = change % 16;
            setThreadName(change % 2 == 0 ? odd : even);
            spinIn(3);
        }
        longMoments = 0;
        isOver = true;
        while (id != 0) {
            std::this_thread::yield();
        }
    });
    while (id == 0) {
        std::this_thread::yield();
    }
    while (!isOver) {
        const std::string name = getThreadName(id);
        EXPECT_TRUE(name == even || name == odd) << name;
    }
    id = 0;
}

}  // namespace
}  // namespace ThreadUtilities
