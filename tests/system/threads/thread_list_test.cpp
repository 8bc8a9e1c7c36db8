// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/Threads.h>
#include <dirent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <future>
#include <latch>
#include <memory>
#include <set>
#include <vector>

#include "linux/capture/thread_stacks.h"
#include "platform/memory.h"
#include "support/allocations.h"
#include "support/forced_unwinding.h"
#include "support/fork_child.h"
#include "support/parked_thread.h"
#include "support/sanitizers.h"

#if defined(__SANITIZE_ADDRESS__)
// A cancelled thread leaves its frames marked, and AddressSanitizer trips over its own mark when it
// takes the thread's alternate stack away.
extern "C" const char* __asan_default_options() {
    return "use_sigaltstack=0";
}
#endif

namespace ThreadUtilities {
namespace {

using ::testing::Contains;
using ::testing::IsEmpty;
using ::testing::Not;

unsigned int ownId() {
    return static_cast<unsigned int>(gettid());
}

std::ptrdiff_t countOf(unsigned int id, const std::vector<unsigned int>& ids = getThreadIds()) {
    return std::count(ids.begin(), ids.end(), id);
}

/// Whether the calling thread stands in the range that is known of it, and all of it can be read.
bool ownStackIsKnown() {
    platform::ReadableRange stack;
    const bool isKnown = platform::findThreadStack(ownId(), stack);
    const auto here = reinterpret_cast<std::uint64_t>(__builtin_frame_address(0));
    bool isRight = isKnown && stack.begin <= here && here < stack.end;
    for (std::uint64_t page = stack.begin; page < stack.end; page += 4096) {
        isRight = isRight && platform::isReadableNow(page);
    }
    return isRight;
}

/// The first thread's stack grows after the bounds were noted.
[[gnu::noinline]] bool boundsHoldFurtherDown() {
    std::array<char, 1 << 20> frames;
    asm volatile("" : : "r"(frames.data()) : "memory");
    const auto here = reinterpret_cast<std::uint64_t>(frames.data());
    const platform::ReadableRange bounds = platform::threadStackBounds(ownId());
    return bounds.begin <= here && here < bounds.end;
}

// Every way in which the C library lets a thread begin and end; each thread checks that it is
// listed with its stack, and its end must be heard of.
void noteSelf(void* out) {
    if (countOf(ownId()) == 1 && ownStackIsKnown()) {
        *static_cast<std::atomic<unsigned int>*>(out) = ownId();
    }
}

void* const seven = reinterpret_cast<void*>(7);

void* noteSelfAndReturn(void* out) {
    noteSelf(out);
    return seven;
}

void checkStartAndEnd(const char* what, const pthread_attr_t* attributes, void* (*function)(void*),
                      void* expectedResult = seven) {
    std::atomic<unsigned int> id{0};
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, attributes, function, &id), 0) << what;
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0) << what;
    EXPECT_EQ(result, expectedResult) << what;
    EXPECT_NE(id, 0U) << what;
    EXPECT_EQ(countOf(id), 0) << what;
    platform::ReadableRange stack;
    EXPECT_FALSE(platform::findThreadStack(id, stack)) << what;
}

TEST(ThreadListOnLinux, HearsOfEveryKindOfStartAndEnd) {
    EXPECT_TRUE(ownStackIsKnown());
    EXPECT_TRUE(boundsHoldFurtherDown());
    checkStartAndEnd("returns", nullptr, noteSelfAndReturn);
    checkStartAndEnd("pthread_exit", nullptr, [](void* id) -> void* {
        noteSelf(id);
        pthread_exit(seven);
    });
    checkStartAndEnd(
        "cancelled", nullptr,
        [](void* id) -> void* {
            noteSelf(id);
            pthread_cancel(pthread_self());
            pthread_testcancel();
            return nullptr;
        },
        PTHREAD_CANCELED);

    pthread_attr_t small;
    pthread_attr_init(&small);
    // ThreadSanitizer's own frames want more.
    ASSERT_EQ(pthread_attr_setstacksize(&small, underThreadSanitizer ? 1 << 20 : 32 << 10), 0);
    checkStartAndEnd("small stack", &small, noteSelfAndReturn);
    static std::array<char, 1 << 20> ownStack;
    ASSERT_EQ(pthread_attr_setstack(&small, ownStack.data() + 80, (1 << 20) - 4000), 0);
    checkStartAndEnd("own stack", &small, noteSelfAndReturn);
    pthread_attr_destroy(&small);

    std::atomic<unsigned int> detached{0};
    std::thread([&] { noteSelf(&detached); }).detach();
    while (detached == 0 || countOf(detached) != 0) {
        std::this_thread::yield();
    }
}

TEST(ThreadListOnLinux, AStartWithoutMemoryFailsAsTheSystemSays) {
    pthread_t thread;
    const allocations::FailAfter fail(0);
    EXPECT_EQ(pthread_create(&thread, nullptr, noteSelfAndReturn, nullptr), EAGAIN);
}

// A thread that was cancelled before may call anything; it ends where its own code lets it.
TEST(ThreadListOnLinux, NothingIsACancellationPoint) {
    if (!threadsMayUnwind) {
        GTEST_SKIP() << unwindersDisagree;
    }
    static std::atomic<bool> passed;
    passed = false;
    pthread_t thread;
    pthread_create(
        &thread, nullptr,
        [](void*) -> void* {
            pthread_cancel(pthread_self());
            const auto parent = static_cast<unsigned int>(getppid());
            setThreadName("cancelled");
            passed = getThreadIds().size() > 1 && !getThreadIds(parent).empty() &&
                     getThreadName() == "cancelled" && !getThreadName(parent).empty();
            pthread_testcancel();
            passed = false;
            return nullptr;
        },
        nullptr);
    pthread_join(thread, nullptr);
    EXPECT_TRUE(passed);
}

// Nothing on the way may catch it: the program ends with the stack that threw.
TEST(ThreadListOnLinuxDeathTest, AnExceptionEndsTheProgramWhereItWasThrown) {
    static std::atomic<bool> cleanedUp;
    EXPECT_EXIT(std::thread([] {
                    struct Cleanup {
                        ~Cleanup() { cleanedUp = true; }
                    } cleanup;
                    std::set_terminate([] { _exit(cleanedUp ? 1 : 42); });
                    throw 7;
                }).join(),
                ::testing::ExitedWithCode(42), "");
}

// Starts and ends that nobody announces, also as many of either as keep the count.
TEST(ThreadListOnLinux, SeesStartsAndEndsBehindTheLibrary) {
    if (underAddressSanitizer) {
        GTEST_SKIP() << threadsMustSayThatTheyEnd;
    }
    if (underThreadSanitizer) {
        GTEST_SKIP() << "a bare thread has no state for ThreadSanitizer";
    }
    alignas(16) static std::array<char, 64 << 10> stack;
    static std::atomic<int> stop;
    stop = 0;
    const auto body = [](void*) -> int {
        // No C library function: this thread shares the creator's thread-local data.
        while (stop.load() == 0) {
        }
        return 0;
    };
    std::latch endNow{1};
    std::promise<unsigned int> started;
    std::thread endsUnheard([&] {
        started.set_value(ownId());
        endNow.wait();
        syscall(SYS_exit, 0);
    });
    const unsigned int unheard = started.get_future().get();
    EXPECT_EQ(getThreadIds().back(), unheard);
    endNow.count_down();
    endsUnheard.join();
    setThreadName("creator");
    const int id = clone(
        body, stack.data() + stack.size(),
        CLONE_VM | CLONE_FS | CLONE_FILES | CLONE_SIGHAND | CLONE_THREAD | CLONE_SYSVSEM, nullptr);
    ASSERT_GT(id, 0);
    const auto bare = static_cast<unsigned int>(id);
    setThreadName("");
    EXPECT_EQ(getThreadIds().back(), bare);
    EXPECT_EQ(getThreadName(bare), "") << "inherited, and given to another by the library";
    EXPECT_EQ(countOf(unheard), 0);
    {
        const ParkedThread announced;
        EXPECT_EQ(countOf(announced.id()), 1);
        EXPECT_EQ(countOf(bare), 1);
    }
    stop = 1;
    while (syscall(SYS_tgkill, getpid(), id, 0) == 0) {
        std::this_thread::yield();
    }
    EXPECT_EQ(countOf(bare), 0);
}

TEST(ThreadListOnLinux, IsRightUnderConcurrentStartsAndEnds) {
    constexpr int Starters = 3;
    constexpr int Rounds = underThreadSanitizer ? 60 : 600;
    const unsigned int mainId = ownId();
    std::atomic<int> starting{Starters};
    std::vector<std::jthread> threads;
    for (int starter = 0; starter < Starters; ++starter) {
        threads.emplace_back([&] {
            for (int round = 0; round < Rounds; ++round) {
                ParkedThread one;
                const ParkedThread two;
                const auto during = getThreadIds();
                EXPECT_EQ(countOf(one.id(), during), 1);
                EXPECT_EQ(countOf(two.id(), during), 1);
                one.end();
                const auto after = getThreadIds();
                EXPECT_EQ(countOf(one.id(), after), 0);
                EXPECT_EQ(countOf(two.id(), after), 1);
            }
            --starting;
        });
    }
    for (const bool fresh : {false, true}) {
        threads.emplace_back([&, fresh] {
            while (starting != 0) {
                const auto ids =
                    fresh ? getThreadIds(static_cast<unsigned int>(getpid())) : getThreadIds();
                EXPECT_EQ(countOf(mainId, ids), 1);
                EXPECT_EQ(countOf(ownId(), ids), 1);
                EXPECT_EQ(std::set<unsigned int>(ids.begin(), ids.end()).size(), ids.size());
            }
        });
    }
}

TEST(ThreadListOnLinux, ACopyOfTheProcessStartsAfreshWhateverOthersDid) {
    if (underAddressSanitizer || underThreadSanitizer) {
        GTEST_SKIP() << copiesMayHang;
    }
    std::vector<std::jthread> hammers;
    for (int hammer = 0; hammer < 3; ++hammer) {
        hammers.emplace_back([](const std::stop_token& stop) {
            while (!stop.stop_requested()) {
                setThreadName("a hammer with a long name");
                getThreadIds();
                getThreadName(getMainThreadId());
                std::thread([] { setThreadName("short-lived"); }).join();
            }
        });
    }
    const unsigned int parent = ownId();
    for (int copy = 0; copy < 150; ++copy) {
        const int result = runInForkChild([&] {
            using Ids = std::vector<unsigned int>;
            const unsigned int self = ownId();
            setThreadName("the child's only thread");
            ParkedThread thread;
            const bool hasBoth = getThreadIds() == Ids{self, thread.id()};
            thread.end();
            return hasBoth && getThreadIds() == Ids{self} && self != parent &&
                   getThreadId() == self && getMainThreadId() == self &&
                   getThreadName(self) == "the child's only thread" &&
                   countOf(parent, getThreadIds(parent)) == 1;
        });
        EXPECT_EQ(result, 0);
    }
    EXPECT_EQ(getThreadId(), parent);
}

TEST(ThreadListOnLinux, ACopyMadeWhileTheListIsLockedHasItFree) {
    if (underAddressSanitizer || underThreadSanitizer) {
        GTEST_SKIP() << copiesMayHang;
    }
    static std::latch* isLocked;
    static std::latch* isCopied;
    std::latch locked{1};
    std::latch copied{1};
    isLocked = &locked;
    isCopied = &copied;
    std::jthread reading([] {
        allocations::callFromNext([] {  // of the list
            isLocked->count_down();
            isCopied->wait();
        });
        getThreadIds();
    });
    locked.wait();
    ForkChild child([] { return getThreadIds() == std::vector{ownId()}; });
    EXPECT_TRUE(child.endedWell());
    copied.count_down();
}

// In the last round of exit destructors a thread is still there, at its place and by its name.
TEST(ThreadListOnLinux, KeepsAThreadUntilItsVeryEnd) {
    if (underThreadSanitizer) {
        GTEST_SKIP() << "ThreadSanitizer takes a thread for ended before all destructors ran";
    }
    static pthread_key_t key;
    static thread_local int rounds = 0;
    static std::unique_ptr<std::latch> atTheEnd;
    static std::unique_ptr<std::latch> goOn;
    atTheEnd = std::make_unique<std::latch>(1);
    goOn = std::make_unique<std::latch>(1);
    const auto destructor = [](void*) {
        if (++rounds < PTHREAD_DESTRUCTOR_ITERATIONS) {
            pthread_setspecific(key, &key);
            return;
        }
        setThreadName("an ending thread of some name");
        atTheEnd->count_down();
        goOn->wait();
    };
    ASSERT_EQ(pthread_key_create(&key, destructor), 0);
    ParkedThread ending([] { pthread_setspecific(key, &key); });
    const ParkedThread later;
    const std::vector<unsigned int> before = getThreadIds();
    std::thread releasing([&] { ending.end(); });
    atTheEnd->wait();
    std::vector<unsigned int> during = getThreadIds();
    during.pop_back();  // the releasing one
    EXPECT_EQ(during, before);
    EXPECT_EQ(getThreadName(ending.id()), "an ending thread of some name");
    goOn->count_down();
    releasing.join();
    EXPECT_EQ(countOf(ending.id()), 0);
    EXPECT_EQ(getThreadName(ending.id()), "");
    pthread_key_delete(key);
}

// The first question in the child finds out; a signal handler may ask it, while the heap is locked
// by a thread that the child does not have.
TEST(ThreadListOnLinux, ACopyThatNobodyAnnouncesStartsAfreshToo) {
    if (underAddressSanitizer || underThreadSanitizer) {
        GTEST_SKIP() << copiesMayHang;
    }
    setThreadName("the thread that is copied");
    const ParkedThread notCopied;
    EXPECT_EQ(getThreadIds().size(), 2U);
    const auto copyIsRight = [] {
        const unsigned int self = ownId();
        return getMainThreadId() == self && getThreadId() == self &&
               getThreadIds() == std::vector{self} &&
               getThreadName(self) == "the thread that is copied";
    };
    const auto child = static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0));
    if (child == 0) {
        alarm(120);
        {
            const allocations::FailAfter fail(0);
            getThreadId();
        }
        _exit(copyIsRight() ? 0 : 1);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    setThreadName("");
}

TEST(ThreadListOnLinux, AnotherProcessIsListedByItsOwnIdOnly) {
    if (underThreadSanitizer) {
        GTEST_SKIP() << "ThreadSanitizer lets no thread start in a fork child";
    }
    const ForkChild child([] {
        const ParkedThread one;
        const ParkedThread two;
        while (true) {
            pause();
        }
    });
    std::vector<unsigned int> ids;
    while (ids.size() < 3) {
        ids = getThreadIds(child.id());
    }
    EXPECT_EQ(ids.size(), 3U);
    EXPECT_EQ(ids[0], child.id());
    // One of its threads is no process, though the kernel would list the others under it.
    EXPECT_THAT(getThreadIds(ids[1]), IsEmpty());
    kill(static_cast<pid_t>(child.id()), SIGKILL);
    child.waitForEnd();
    EXPECT_THAT(getThreadIds(child.id()), IsEmpty()) << "dead and not waited for";
    EXPECT_THAT(getThreadIds(0), IsEmpty());
    EXPECT_THAT(getThreadIds(0xFFFFFFFF), IsEmpty());
}

}  // namespace
}  // namespace ThreadUtilities
