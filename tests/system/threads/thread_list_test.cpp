#include <dirent.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <threads.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <vector>

#include <ThreadUtilities/Threads.h>

#include "child_process.h"
#include "parked_thread.h"

#if defined(__SANITIZE_ADDRESS__)
// A cancelled thread leaves its frames marked, and AddressSanitizer trips over its own mark when it
// takes the thread's alternate stack away.
extern "C" const char* __asan_default_options() {
    return "use_sigaltstack=0";
}
#endif

// Allocation can be made to fail on one thread, as the start of a thread sees it.
static thread_local bool outOfMemory = false;

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return outOfMemory ? nullptr : operator new(size);
}

namespace ThreadUtilities {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::UnorderedElementsAreArray;

#if defined(__SANITIZE_THREAD__)
constexpr bool UnderThreadSanitizer = true;
#else
constexpr bool UnderThreadSanitizer = false;
#endif

#if defined(__SANITIZE_ADDRESS__)
constexpr bool UnderAddressSanitizer = true;
#else
constexpr bool UnderAddressSanitizer = false;
#endif

unsigned int ownId() {
    return static_cast<unsigned int>(gettid());
}

/// What the kernel lists, found without the library.
std::vector<unsigned int> kernelList(const std::string& process = "self") {
    std::vector<unsigned int> ids;
    const std::string path = "/proc/" + process + "/task";
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(path.c_str()), closedir);
    while (const dirent* const entry = folder ? readdir(folder.get()) : nullptr) {
        if (const int id = atoi(entry->d_name); id > 0) {
            ids.push_back(static_cast<unsigned int>(id));
        }
    }
    return ids;
}

TEST(ThreadListOnLinux, FollowsStartsAndEndsInOrder) {
    // A sanitizer starts a thread of its own beside the first one.
    ParkedThread().end();
    const auto before = getThreadIds();
    EXPECT_THAT(before, UnorderedElementsAreArray(kernelList()));
    EXPECT_THAT(before, Contains(ownId()));
    const auto laterThreads = [&](std::vector<unsigned int> ids) {
        std::erase_if(ids, [&](unsigned int id) { return std::ranges::count(before, id) != 0; });
        return ids;
    };

    auto first = std::make_unique<ParkedThread>();
    ParkedThread second;
    auto third = std::make_unique<ParkedThread>();
    const unsigned int firstId = first->id();
    EXPECT_THAT(laterThreads(getThreadIds()), ElementsAre(firstId, second.id(), third->id()));
    EXPECT_THAT(laterThreads(getThreadIds(static_cast<unsigned int>(getpid()))),
                ElementsAre(firstId, second.id(), third->id()));
    first.reset();
    EXPECT_THAT(laterThreads(getThreadIds()), ElementsAre(second.id(), third->id()));
    third.reset();
    EXPECT_THAT(laterThreads(getThreadIds()), ElementsAre(second.id()));
    EXPECT_EQ(getThreadIds().size(), before.size() + 1);
}

TEST(ThreadListOnLinux, NeverHasAJoinedThreadAndAlwaysANewOne) {
    constexpr int Threads = UnderThreadSanitizer ? 200 : 2000;
    for (int count = 0; count < Threads; ++count) {
        unsigned int id = 0;
        std::vector<unsigned int> seenByItself;
        std::thread([&] {
            id = getThreadId();
            seenByItself = getThreadIds();
        }).join();
        ASSERT_THAT(seenByItself, Contains(id));
        ASSERT_THAT(getThreadIds(), Not(Contains(id)));
        ASSERT_THAT(getThreadIds(static_cast<unsigned int>(getpid())), Not(Contains(id)));
    }
}

// Every way in which the C library lets a thread begin and end; each thread checks that it is
// listed, and its end must be heard of.
void noteSelf(void* out) {
    const auto ids = getThreadIds();
    if (std::count(ids.begin(), ids.end(), ownId()) == 1) {
        *static_cast<std::atomic<unsigned int>*>(out) = ownId();
    }
}

void checkStartAndEnd(const char* what, const pthread_attr_t* attributes, void* (*function)(void*),
                      void* expectedResult) {
    std::atomic<unsigned int> id{0};
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, attributes, function, &id), 0) << what;
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0) << what;
    EXPECT_EQ(result, expectedResult) << what;
    EXPECT_NE(id, 0U) << what;
    EXPECT_THAT(getThreadIds(), Not(Contains(id.load()))) << what;
}

TEST(ThreadListOnLinux, HearsOfEveryKindOfStartAndEnd) {
    void* const seven = reinterpret_cast<void*>(7);
    const auto returns = [](void* id) -> void* {
        noteSelf(id);
        return reinterpret_cast<void*>(7);
    };
    checkStartAndEnd("returns", nullptr, returns, seven);
    checkStartAndEnd(
        "pthread_exit", nullptr,
        [](void* id) -> void* {
            noteSelf(id);
            pthread_exit(reinterpret_cast<void*>(7));
        },
        seven);
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
    ASSERT_EQ(pthread_attr_setstacksize(&small, UnderThreadSanitizer ? 1 << 20 : 32 << 10), 0);
    checkStartAndEnd("small stack", &small, returns, seven);

    static std::array<char, 1 << 20> ownStack;
    ASSERT_EQ(pthread_attr_setstack(&small, ownStack.data() + 80, (1 << 20) - 4096), 0);
    checkStartAndEnd("own stack", &small, returns, seven);
    pthread_attr_destroy(&small);
}

TEST(ThreadListOnLinux, HearsOfThreadsOfTheCStandard) {
    if (UnderThreadSanitizer) {
        GTEST_SKIP() << "ThreadSanitizer does not know of thrd_create";
    }
    std::atomic<unsigned int> id{0};
    thrd_t thread;
    ASSERT_EQ(thrd_create(
                  &thread,
                  [](void* out) -> int {
                      noteSelf(out);
                      return -3;
                  },
                  &id),
              thrd_success);
    int result = 0;
    thrd_join(thread, &result);
    EXPECT_EQ(result, -3);
    EXPECT_NE(id, 0U);
    EXPECT_THAT(getThreadIds(), Not(Contains(id.load())));
}

TEST(ThreadListOnLinux, ADetachedThreadLeavesTheList) {
    std::atomic<unsigned int> id{0};
    std::thread([&] { noteSelf(&id); }).detach();
    while (id == 0 || std::ranges::count(getThreadIds(), id.load()) != 0) {
        std::this_thread::yield();
    }
}

TEST(ThreadListOnLinux, AStartWithoutMemoryFailsAsTheSystemSays) {
    pthread_t thread;
    outOfMemory = true;
    const int error = pthread_create(
        &thread, nullptr, [](void*) -> void* { return nullptr; }, nullptr);
    outOfMemory = false;
    EXPECT_EQ(error, EAGAIN);
}

// A thread that was cancelled before may call anything; it ends where its own code lets it.
TEST(ThreadListOnLinux, NothingIsACancellationPoint) {
    static std::atomic<bool> passed;
    passed = false;
    pthread_t thread;
    ParkedThread other;
    unsigned int otherId = other.id();
    pthread_create(
        &thread, nullptr,
        [](void* id) -> void* {
            pthread_cancel(pthread_self());
            const auto parent = static_cast<unsigned int>(getppid());
            setThreadName("cancelled");
            passed = getThreadIds().size() > 1 && !getThreadIds(parent).empty() &&
                     getThreadName() == "cancelled" &&
                     getThreadName(*static_cast<unsigned int*>(id)).empty() &&
                     !getThreadName(parent).empty();
            pthread_testcancel();
            passed = false;
            return nullptr;
        },
        &otherId);
    pthread_join(thread, nullptr);
    EXPECT_TRUE(passed);
}

// Nothing on the way may catch it: the program ends with the stack that threw.
void throwsFromThread() {
    throw 7;
}

TEST(ThreadListOnLinuxDeathTest, AnExceptionEndsTheProgramWhereItWasThrown) {
    static std::atomic<bool> cleanedUp;
    EXPECT_EXIT(std::thread([] {
                    struct Cleanup {
                        ~Cleanup() { cleanedUp = true; }
                    } cleanup;
                    std::set_terminate([] { _exit(cleanedUp ? 1 : 42); });
                    throwsFromThread();
                }).join(),
                ::testing::ExitedWithCode(42), "");
}

// Threads of the kernel that nobody announces.
TEST(ThreadListOnLinux, SeesThreadsThatWereMadeBehindTheLibrary) {
    if (UnderThreadSanitizer) {
        GTEST_SKIP() << "a bare thread has no state for ThreadSanitizer";
    }
    constexpr std::size_t StackSize = 64 << 10;
    char* const stack = static_cast<char*>(
        mmap(nullptr, StackSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    static std::atomic<int> stop;
    stop = 0;
    alignas(4) static std::atomic<int> tid;
    const auto body = [](void*) -> int {
        // No C library function: this thread shares the creator's thread-local data.
        while (stop.load() == 0) {
        }
        return 0;
    };
    const int id = clone(body, stack + StackSize,
                         CLONE_VM | CLONE_FS | CLONE_FILES | CLONE_SIGHAND | CLONE_THREAD |
                             CLONE_SYSVSEM | CLONE_CHILD_SETTID | CLONE_CHILD_CLEARTID,
                         nullptr, nullptr, nullptr, &tid);
    ASSERT_GT(id, 0);
    const auto bare = static_cast<unsigned int>(id);
    EXPECT_EQ(getThreadIds().back(), bare);
    {
        ParkedThread announced;
        EXPECT_THAT(getThreadIds(), Contains(announced.id()));
        EXPECT_THAT(getThreadIds(), Contains(bare));
    }
    stop = 1;
    while (syscall(SYS_tgkill, getpid(), id, 0) == 0) {
        std::this_thread::yield();
    }
    EXPECT_THAT(getThreadIds(), Not(Contains(bare)));
    munmap(stack, StackSize);
}

TEST(ThreadListOnLinux, IsRightUnderConcurrentStartsAndEnds) {
    constexpr int Starters = 3;
    constexpr int Readers = 2;
    constexpr int Rounds = UnderThreadSanitizer ? 60 : 600;
    const unsigned int mainId = ownId();
    ParkedThread stable;
    std::atomic<int> starting{Starters};
    const auto check = [](bool right, int line = __builtin_LINE()) {
        if (!right) {
            ADD_FAILURE_AT(__FILE__, line);
        }
    };

    std::vector<std::thread> threads;
    for (int starter = 0; starter < Starters; ++starter) {
        threads.emplace_back([&] {
            for (int round = 0; round < Rounds; ++round) {
                ParkedThread one;
                ParkedThread two;
                const auto during = getThreadIds();
                check(std::ranges::count(during, one.id()) == 1);
                check(std::ranges::count(during, two.id()) == 1);
                one.end();
                const auto after = getThreadIds();
                check(std::ranges::count(after, one.id()) == 0);
                check(std::ranges::count(after, two.id()) == 1);
            }
            --starting;
        });
    }
    for (int reader = 0; reader < Readers; ++reader) {
        threads.emplace_back([&, fresh = reader == 1] {
            while (starting != 0) {
                const auto ids =
                    fresh ? getThreadIds(static_cast<unsigned int>(getpid())) : getThreadIds();
                check(std::ranges::count(ids, mainId) == 1);
                check(std::ranges::count(ids, stable.id()) == 1);
                check(std::ranges::count(ids, ownId()) == 1);
                check(std::set<unsigned int>(ids.begin(), ids.end()).size() == ids.size());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(ThreadListOnLinux, ACopyOfTheProcessStartsAfreshWhateverOthersDid) {
    if (UnderAddressSanitizer) {
        GTEST_SKIP() << "AddressSanitizer's allocator may stay locked in such a copy";
    }
    constexpr int Copies = UnderThreadSanitizer ? 20 : 150;
    std::atomic<bool> stop{false};
    std::vector<std::thread> hammers;
    for (int hammer = 0; hammer < 3; ++hammer) {
        hammers.emplace_back([&] {
            while (!stop) {
                setThreadName("a hammer with a long name");
                getThreadIds();
                getThreadName(getMainThreadId());
                std::thread([] { setThreadName("short-lived"); }).join();
            }
        });
    }
    const unsigned int parent = ownId();
    for (int copy = 0; copy < Copies; ++copy) {
        const int result = runInCopy([&] {
            const unsigned int self = ownId();
            if (getThreadId() != self || getMainThreadId() != self || self == parent) {
                return 1;
            }
            if (getThreadIds() != std::vector<unsigned int>{self}) {
                return 2;
            }
            setThreadName("the copy's only thread");
            if (getThreadName(self) != "the copy's only thread") {
                return 3;
            }
            if (std::ranges::count(getThreadIds(parent), parent) != 1) {
                return 4;
            }
            if (UnderThreadSanitizer) {
                return 0;  // which lets no thread start after such a fork
            }
            ParkedThread thread;
            if (getThreadIds() != std::vector<unsigned int>{self, thread.id()}) {
                return 5;
            }
            thread.end();
            return getThreadIds() == std::vector<unsigned int>{self} ? 0 : 6;
        });
        EXPECT_EQ(result, 0);
    }
    stop = true;
    for (std::thread& hammer : hammers) {
        hammer.join();
    }
    EXPECT_EQ(getThreadId(), parent);
}

// Another library's exit destructor runs after the library's own.
TEST(ThreadListOnLinux, ServesExitDestructorsOfOthers) {
    static std::atomic<int> calls;
    static pthread_key_t key;
    calls = 0;
    ASSERT_EQ(pthread_key_create(&key,
                                 [](void*) {
                                     setThreadName("an ending thread of some name");
                                     const bool right =
                                         getThreadName() == "an ending thread of some name" &&
                                         getThreadId() == ownId() && !getThreadIds().empty();
                                     if (right && ++calls < 3) {
                                         pthread_setspecific(key, &key);
                                     }
                                 }),
              0);
    unsigned int id = 0;
    std::thread([&] {
        id = ownId();
        pthread_setspecific(key, &key);
    }).join();
    EXPECT_EQ(calls, 3);
    EXPECT_THAT(getThreadIds(), Not(Contains(id)));
    EXPECT_EQ(getThreadName(id), "");
    pthread_key_delete(key);
}

TEST(ThreadListOnLinux, AnotherProcessIsListedByItsOwnIdOnly) {
    std::array<int, 2> ready;
    std::array<int, 2> leave;
    ASSERT_EQ(pipe(ready.data()), 0);
    ASSERT_EQ(pipe(leave.data()), 0);
    const pid_t child = fork();
    if (child == 0) {
        alarm(60);
        close(leave[1]);
        char byte = 0;
        if (UnderThreadSanitizer) {
            (void)!write(ready[1], &byte, 1);
            (void)!read(leave[0], &byte, 1);
            _exit(0);
        }
        ParkedThread one;
        ParkedThread two;
        (void)!write(ready[1], &byte, 1);
        (void)!read(leave[0], &byte, 1);
        _exit(0);
    }
    close(leave[0]);
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    const auto process = static_cast<unsigned int>(child);
    const auto ids = getThreadIds(process);
    EXPECT_EQ(ids, kernelList(std::to_string(child)));
    EXPECT_TRUE(ids.size() == 3 || UnderThreadSanitizer);
    // One of its threads is no process, though the kernel would list the others under it.
    if (ids.size() > 1) {
        EXPECT_THAT(kernelList(std::to_string(ids[1])), Not(IsEmpty()));
        EXPECT_THAT(getThreadIds(ids[1]), IsEmpty());
    }

    // Dead and not waited for, then gone.
    close(leave[1]);
    siginfo_t info;
    waitid(P_PID, process, &info, WEXITED | WNOWAIT);
    EXPECT_THAT(getThreadIds(process), IsEmpty());
    waitpid(child, nullptr, 0);
    EXPECT_THAT(getThreadIds(process), IsEmpty());
    close(ready[0]);
    close(ready[1]);

    EXPECT_THAT(getThreadIds(0), IsEmpty());
    EXPECT_THAT(getThreadIds(0xFFFFFFFF), IsEmpty());
    EXPECT_THAT(getThreadIds(static_cast<unsigned int>(getppid())).size(), Ge(1U));
}

}  // namespace
}  // namespace ThreadUtilities
