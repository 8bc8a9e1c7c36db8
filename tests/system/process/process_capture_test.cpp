// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/ProcessCapture.h>
#include <ThreadUtilities/StackTrace.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <random>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "platform/memory.h"
#include "support/sanitizers.h"
#include "target_process.h"

namespace ThreadUtilities {
namespace {

constexpr std::size_t limit = 64;

std::string switchesOf(const TargetProcess& target, unsigned int threadId) {
    return statusOf(target.id(), threadId, "voluntary_ctxt_switches") + '/' +
           statusOf(target.id(), threadId, "nonvoluntary_ctxt_switches");
}

TEST(ProcessCapture, DoesNotTouchBlockedThreads) {
    if (underAddressSanitizer) {
        GTEST_SKIP() << framePointersAreKept;
    }
    const std::vector<long> calls{SYS_poll, SYS_epoll_wait, SYS_clock_nanosleep, SYS_read,
                                  SYS_futex};
    TargetProcess target({
        [](Told& told) { told.earlyReturns += poll(nullptr, 0, -1) + 2; },
        [](Told& told) {
            epoll_event event;
            told.earlyReturns += epoll_wait(epoll_create1(0), &event, 1, 1000'000) + 2;
        },
        [](Told& told) {
            const timespec time{1000, 0};
            told.earlyReturns += nanosleep(&time, nullptr) + 2;
        },
        [](Told& told) {
            int ends[2];
            char byte = 0;
            told.earlyReturns += pipe(ends) + read(ends[0], &byte, 1) + 2;
        },
        [](Told& told) {
            std::binary_semaphore never(0);
            never.acquire();
            ++told.earlyReturns;
        },
    });
    std::vector<std::string> before;
    for (std::size_t i = 0; i < calls.size(); ++i) {
        ASSERT_TRUE(becomes(target.id(), target.thread(i), 'S'));
        before.push_back(switchesOf(target, target.thread(i)));
    }
    std::vector<unsigned long long> frames;
    for (int round = 0; round < 50; ++round) {
        const ProcessCapture capture(target.id());  // that remembers no look
        for (std::size_t i = 0; i < calls.size(); ++i) {
            const ThreadLook look = capture.look(target.thread(i), frames, limit);
            ASSERT_EQ(look.result, LookResult::Blocked);
            ASSERT_EQ(look.systemCall, calls[i]);
            ASSERT_EQ(look.state, 'S');
            ASSERT_GE(look.frameCount, 4U);
            ASSERT_FALSE(look.isCutShort);
            const auto once = std::vector(frames.begin(), frames.begin() + 4);
            const ThreadLook again = capture.look(target.thread(i), frames, 3);
            ASSERT_EQ(again.runs, look.runs);
            ASSERT_TRUE(again.frameCount == 3 && again.isCutShort &&
                        std::equal(once.begin(), once.begin() + 3, frames.begin()));
        }
        ASSERT_EQ(capture.statistics().stopped, 0U);
        ASSERT_EQ(capture.statistics().blocked, calls.size() * 2);
    }
    for (std::size_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ(switchesOf(target, target.thread(i)), before[i]) << "system call " << calls[i];
    }
    EXPECT_EQ(target.tells().earlyReturns, 0);
    EXPECT_TRUE(target.endsWell());
}

// What the library tells a process of its own thread is what one sees from outside.
TEST(ProcessCapture, SeesTheFramesThatTheProcessSees) {
    struct Frames {
        std::array<unsigned long long, limit> values{};
        std::atomic<unsigned long long> count{0};
    };
    auto* const seen = new (mmap(nullptr, sizeof(Frames), PROT_READ | PROT_WRITE,
                                 MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Frames;
    TargetProcess target({
        [](Told&) { poll(nullptr, 0, -1); },
        [seen](Told& told) {
            while (told.progress == 0) {
                usleep(1000);
            }
            seen->count = getStackTrace(told.threadIds[0], seen->values.data(), limit, true);
        },
    });
    ASSERT_TRUE(becomes(target.id(), target.thread(0), 'S'));
    ++target.tells().progress;
    ASSERT_TRUE(eventually([&] { return seen->count >= 3; }));
    std::vector<unsigned long long> frames;
    const ProcessCapture capture(target.id());
    const ThreadLook look = capture.look(target.thread(0), frames, limit);
    ASSERT_EQ(look.frameCount, seen->count);
    EXPECT_TRUE(std::equal(frames.begin(), frames.begin() + look.frameCount, seen->values.begin()));
    munmap(seen, sizeof(Frames));
}

[[gnu::noinline]] void descend(Told& told, int depth) {
    volatile char room[512];
    room[0] = 0;
    if (depth == 0) {
        spin(told);
    } else {
        descend(told, depth - 1);
    }
    room[1] = room[0];
}

// Deeper than the first copy of the stack reaches, then deeper than any.
TEST(ProcessCapture, StopsRunningThreadsAndLetsThemGo) {
    TargetProcess target({
        [](Told& told) { descend(told, 40); },
        [](Told& told) { descend(told, 1000); },
    });
    const ProcessCapture capture(target.id());
    std::vector<unsigned long long> frames;
    const auto lookAtRunning = [&](std::size_t index) {
        ThreadLook look;
        EXPECT_TRUE(eventually([&] {
            look = capture.look(target.thread(index), frames, 4096);
            return look.result == LookResult::Stopped;
        }));
        return look;
    };
    for (int round = 0; round < 100; ++round) {
        const ThreadLook whole = lookAtRunning(0);
        ASSERT_FALSE(whole.isCutShort);
        ASSERT_GT(whole.frameCount, 40U);
        ASSERT_TRUE(std::equal(frames.begin() + 2, frames.begin() + 40, frames.begin() + 1));
        const ThreadLook part = lookAtRunning(1);
        ASSERT_TRUE(part.isCutShort);
        ASSERT_GT(part.frameCount, 64U);
    }
    ThreadLook unstopped = capture.lookWithoutStop(target.thread(0), frames, limit);
    EXPECT_EQ(unstopped.result, LookResult::Unanswered);
    EXPECT_GT(capture.statistics().longestStop.count(), 0);
    EXPECT_TRUE(target.goesOn());
    EXPECT_EQ(capture(target.id() + 1, target.thread(0), frames, limit), 0U);
    EXPECT_TRUE(target.endsWell());
    EXPECT_EQ(capture.look(target.thread(0), frames, limit).result, LookResult::NoSuchThread);
}

// A thread that falls asleep and wakes all the time, looked at by several: no wait of it ends by
// that, no signal is lost, and each look has an answer.
TEST(ProcessCapture, DisturbsNoThreadThatWakesAndSleeps) {
    TargetProcess target({[](Told& told) {
        static std::atomic<long>* counted;
        counted = &told.signals;
        struct sigaction action{};
        action.sa_flags = SA_RESTART | SA_SIGINFO;
        action.sa_sigaction = [](int, siginfo_t*, void*) { ++*counted; };
        sigaction(SIGRTMIN, &action, nullptr);
        const int epoll = epoll_create1(0);
        for (;;) {
            epoll_event event;
            const long before = told.signals;
            const bool isEarly = epoll_wait(epoll, &event, 1, 1) < 0 && before == told.signals;
            told.earlyReturns += isEarly ? 1 : 0;
            ++told.progress;
        }
    }});
    ASSERT_TRUE(target.goesOn());
    const ProcessCapture capture(target.id());
    const auto look = [&] {
        std::vector<unsigned long long> frames;
        for (int i = 0; i < 3000; ++i) {
            const LookResult result = capture.look(target.thread(0), frames, limit).result;
            ASSERT_TRUE(result == LookResult::Blocked || result == LookResult::Stopped ||
                        result == LookResult::Unanswered);  // it got no processor
        }
    };
    std::thread first(look);
    std::thread second(look);
    constexpr long sent = 2000;
    for (long i = 0; i < sent; ++i) {
        while (sigqueue(static_cast<pid_t>(target.id()), SIGRTMIN, sigval{}) != 0) {
            std::this_thread::yield();
        }
    }
    first.join();
    second.join();
    EXPECT_TRUE(eventually([&] { return target.tells().signals == sent; }));
    EXPECT_EQ(target.tells().earlyReturns, 0);
    EXPECT_EQ(capture.statistics().looks, 6000U);
    EXPECT_TRUE(target.goesOn());
}

TEST(ProcessCapture, LetsTheProcessGoOnWhenTheTracerDies) {
    TargetProcess target({spin, spin});
    std::minstd_rand random(1);
    for (int round = 0; round < 60; ++round) {
        ForkChild tracer([&] {
            const ProcessCapture capture(target.id());
            std::vector<unsigned long long> frames;
            for (;;) {
                capture.look(target.thread(0), frames, limit);
                capture.look(target.thread(1), frames, limit);
            }
        });
        usleep(static_cast<useconds_t>(2000 + random() % 3000));
        kill(static_cast<pid_t>(tracer.id()), SIGKILL);
        tracer.result();
        for (const std::size_t index : {0, 1}) {
            ASSERT_EQ(statusOf(target.id(), target.thread(index), "TracerPid"), "0");
            ASSERT_TRUE(becomes(target.id(), target.thread(index), 'R'));
        }
        ASSERT_TRUE(target.goesOn());
    }
}

TEST(ProcessCapture, NamesTheDebuggerThatHasAThread) {
    TargetProcess target({spin});
    SharedTold shared;
    ForkChild debugger([&] {
        const auto thread = static_cast<pid_t>(target.thread(0));
        if (ptrace(PTRACE_SEIZE, thread, nullptr, nullptr) != 0) {
            return 1;
        }
        shared.told->announce();
        while (!shared.told->mayEnd) {
            usleep(1000);
        }
        return 0;
    });
    ASSERT_TRUE(eventually([&] { return shared.told->threadCount == 1; }));
    const ProcessCapture capture(target.id());
    std::vector<unsigned long long> frames;
    const ThreadLook look = capture.look(target.thread(0), frames, limit);
    EXPECT_EQ(look.result, LookResult::Traced);
    EXPECT_EQ(look.tracer, debugger.id());
    shared.told->mayEnd = true;
    EXPECT_TRUE(debugger.endedWell());
    EXPECT_TRUE(eventually([&] {
        return capture.look(target.thread(0), frames, limit).result == LookResult::Stopped;
    }));
}

// More threads than may be kept open, with hardly a descriptor left.
TEST(ProcessCapture, LeavesDescriptorsToOthers) {
    TargetProcess target({[](Told& told) {
        std::vector<std::thread> threads;
        for (int i = 0; i < 100; ++i) {
            threads.emplace_back([&] {
                ++told.progress;
                pause();
            });
        }
        pause();
    }});
    ASSERT_TRUE(eventually([&] { return target.tells().progress == 100; }));
    EXPECT_EQ(runInForkChild([&] {
                  constexpr rlimit few{40, 40};
                  setrlimit(RLIMIT_NOFILE, &few);
                  const ProcessCapture capture(target.id());
                  std::vector<unsigned long long> frames;
                  int seen = 0;
                  for (const auto& entry : std::filesystem::directory_iterator(
                           "/proc/" + std::to_string(target.id()) + "/task")) {
                      const auto id =
                          static_cast<unsigned int>(std::stoul(entry.path().filename()));
                      becomes(target.id(), id, 'S');
                      seen += capture.look(id, frames, limit).frameCount >= 2 ? 1 : 0;
                  }
                  const auto open =
                      std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
                  return seen == 102 && open < 30;
              }),
              0);
}

// Threads and programs that start and end under the eyes of several; the process does all that it
// is to do, and each look has an answer.
TEST(ProcessCapture, BearsWhatAProcessMayDo) {
    for (int round = 0; round < 5; ++round) {
        ForkChild busy([] {
            for (int i = 0; i < 300; ++i) {
                std::thread([] { std::thread([] {}).join(); }).join();
                if (i % 50 == 0) {
                    const pid_t child = fork();
                    if (child == 0) {
                        execl("/bin/true", "true", nullptr);
                    }
                    waitpid(child, nullptr, 0);
                }
            }
            std::thread([] {  // its end is the others' too
                execl("/bin/sleep", "sleep", "0.05", nullptr);
            })
                .join();
            return 1;
        });
        const ProcessCapture capture(busy.id());
        const auto lookAtAll = [&] {
            std::vector<unsigned long long> frames;
            const std::string folder = "/proc/" + std::to_string(busy.id()) + "/task";
            for (std::error_code error; !error;) {
                for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
                    const auto id = static_cast<unsigned int>(std::stoul(entry.path().filename()));
                    EXPECT_NE(capture.look(id, frames, limit).result, LookResult::NotPermitted);
                }
                if (statusOf(busy.id(), busy.id(), "State").starts_with('Z')) {
                    break;
                }
            }
        };
        std::vector<std::thread> lookers;
        for (int i = 0; i < 3; ++i) {
            lookers.emplace_back(lookAtAll);
        }
        for (std::thread& looker : lookers) {
            looker.join();
        }
        EXPECT_TRUE(busy.endedWell());
        std::vector<unsigned long long> frames;
        EXPECT_EQ(capture.look(busy.id(), frames, limit).result, LookResult::NoSuchThread);
    }
}

// Some pages have contents only once a pager provides them (userfaultfd), which may never be: who
// reads one hangs.
TEST(ProcessCapture, DoesNotAskForPagesWithoutContents) {
    const std::size_t page = platform::memoryPageSize;
    auto* const pages = static_cast<char*>(
        mmap(nullptr, 200 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    std::fill_n(pages, 100 * page, 'x');
    TargetProcess target({spin});
    const ProcessCapture capture(target.id());
    std::vector<char> copy(200 * page);
    const auto begin = reinterpret_cast<std::uint64_t>(pages);
    EXPECT_EQ(capture.readMemory(begin + 1, copy.data(), copy.size() - 1), 100 * page - 1);
    EXPECT_EQ(capture.readMemory(begin + 100 * page - 8, copy.data(), 8), 8U);
    EXPECT_EQ(capture.readMemory(begin + 100 * page, copy.data(), 8), 0U);
    munmap(pages, 200 * page);
}

}  // namespace
}  // namespace ThreadUtilities
