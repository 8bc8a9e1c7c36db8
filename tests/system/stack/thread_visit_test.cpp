#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <vector>

#include "platform/thread_context.h"
#include "system/stack/target_thread.h"

// Whatever way the visit takes to the thread; where it must be the signal, the thread runs.

namespace ThreadUtilities {
namespace {

using platform::ThreadContext;
using platform::VisitorAnswer;
using platform::VisitResult;
using platform::visitThreadContext;

using ThreadVisit = WithPromptSignals;

struct Seen {
    int visits = 0;
    unsigned int visitedOn = 0;
    ThreadContext context;
};

VisitorAnswer look(const ThreadContext& context, void* seen) noexcept {
    auto& record = *static_cast<Seen*>(seen);
    ++record.visits;
    record.visitedOn = static_cast<unsigned int>(gettid());
    record.context = context;
    return VisitorAnswer::Enough;
}

VisitResult visit(unsigned int threadId, Seen& seen, bool suspend = true) {
    return visitThreadContext(threadId, suspend, look, &seen);
}

// Puts the signal's action back as the test found it.
class KeptSignalAction {
 public:
    KeptSignalAction() { sigaction(SIGURG, nullptr, &kept_); }
    ~KeptSignalAction() { sigaction(SIGURG, &kept_, nullptr); }
    KeptSignalAction(const KeptSignalAction&) = delete;
    KeptSignalAction& operator=(const KeptSignalAction&) = delete;

 private:
    struct sigaction kept_ {};
};

std::atomic<int> hostCalls{0};
std::atomic<bool> hostSawInfo{false};
struct sigaction hostPrevious {};

void plainHostHandler(int) {
    ++hostCalls;
}

void hostHandlerWithInfo(int, siginfo_t* info, void*) {
    hostSawInfo = info->si_code == SI_TKILL && info->si_pid == getpid();
    ++hostCalls;
}

void chainingHostHandler(int number, siginfo_t* info, void* context) {
    if (info->si_code == SI_TKILL) {
        ++hostCalls;
    }
    if ((hostPrevious.sa_flags & SA_SIGINFO) != 0) {
        hostPrevious.sa_sigaction(number, info, context);
    }
}

void installHostHandler(void (*plain)(int), void (*withInfo)(int, siginfo_t*, void*)) {
    struct sigaction action {};
    if (plain != nullptr) {
        action.sa_handler = plain;
    } else {
        action.sa_sigaction = withInfo;
        action.sa_flags = SA_SIGINFO;
    }
    ASSERT_EQ(sigaction(SIGURG, &action, &hostPrevious), 0);
}

TEST_F(ThreadVisit, ARunningThreadIsSeenWhereItRuns) {
    TargetThread target(spinUntil);
    Seen seen;
    ASSERT_EQ(visit(target.id(), seen), VisitResult::Visited);
    EXPECT_EQ(seen.visits, 1);
    EXPECT_EQ(seen.visitedOn, target.id());
    EXPECT_TRUE(seen.context.standsStill);
    EXPECT_EQ(seen.context.knownRegisters, platform::allRegisters);
}

TEST_F(ThreadVisit, WithoutSuspensionTheRegistersAreLookedAtFromOutside) {
    TargetThread target(spinUntil);
    Seen seen;
    ASSERT_EQ(visit(target.id(), seen, false), VisitResult::Visited);
    EXPECT_EQ(seen.visitedOn, static_cast<unsigned int>(gettid()));
    EXPECT_FALSE(seen.context.standsStill);
    EXPECT_NE(seen.context.registers[platform::Rip], 0U);
    EXPECT_NE(seen.context.registers[platform::Rsp], 0U);
}

TEST_F(ThreadVisit, ThreadsThatAreNotOursDoNotExist) {
    unsigned int ended = 0;
    {
        TargetThread target([](const auto&) {});
        ended = target.id();
    }
    for (const unsigned int id : {0U, 1U, ended, 0x7fffffffU, 0x80000000U, 0xffffffffU}) {
        Seen seen;
        EXPECT_EQ(visit(id, seen), VisitResult::NoSuchThread) << id;
        EXPECT_EQ(seen.visits, 0) << id;
    }
}

TEST_F(ThreadVisit, AThreadThatBlocksTheSignalIsGivenUpAndNeverVisitedLate) {
    std::atomic<bool> blocked{false};
    std::atomic<bool> unblock{false};
    std::atomic<bool> unblocked{false};
    TargetThread target([&](const std::atomic<bool>& stop) {
        sigset_t urgent;
        sigemptyset(&urgent);
        sigaddset(&urgent, SIGURG);
        pthread_sigmask(SIG_BLOCK, &urgent, nullptr);
        blocked = true;
        spinUntil(unblock);
        pthread_sigmask(SIG_UNBLOCK, &urgent, nullptr);
        unblocked = true;
        spinUntil(stop);
    });
    ASSERT_TRUE(eventually([&] { return blocked.load(); }));
    Seen seen;
    EXPECT_EQ(visit(target.id(), seen), VisitResult::NotAnswering);
    unblock = true;
    ASSERT_TRUE(eventually([&] { return unblocked.load(); }));
    EXPECT_EQ(seen.visits, 0);
    EXPECT_EQ(visit(target.id(), seen), VisitResult::Visited);
    EXPECT_EQ(seen.visits, 1);
}

TEST_F(ThreadVisit, ThreadsVisitEachOther) {
    constexpr int rounds = 2000;
    std::array<std::atomic<unsigned int>, 2> ids{};
    std::array<int, 2> visited{};
    std::atomic<int> finished{0};
    auto body = [&](std::size_t me) {
        ids[me] = static_cast<unsigned int>(gettid());
        eventually([&] { return ids[1 - me] != 0; });
        for (int i = 0; i < rounds; ++i) {
            Seen seen;
            visited[me] += visit(ids[1 - me], seen) == VisitResult::Visited ? 1 : 0;
        }
        ++finished;
        eventually([&] { return finished == 2; });
    };
    std::thread first(body, 0);
    std::thread second(body, 1);
    first.join();
    second.join();
    EXPECT_EQ(visited[0], rounds);
    EXPECT_EQ(visited[1], rounds);
}

TEST_F(ThreadVisit, SeveralVisitorsOfOneThreadAllSucceed) {
    TargetThread target(spinUntil);
    constexpr int visitors = 4;
    constexpr int rounds = 500;
    std::atomic<int> visited{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < visitors; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < rounds; ++round) {
                Seen seen;
                visited += visit(target.id(), seen) == VisitResult::Visited ? 1 : 0;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(visited, visitors * rounds);
}

TEST_F(ThreadVisit, SignalsOfTheHostReachItsHandlerAndOursDoNot) {
    const KeptSignalAction kept;
    TargetThread target(spinUntil);
    using Install = void (*)();
    const std::array<Install, 2> installs{[] { installHostHandler(plainHostHandler, nullptr); },
                                          [] { installHostHandler(nullptr, hostHandlerWithInfo); }};
    for (const Install install : installs) {
        install();
        hostCalls = 0;
        Seen seen;
        ASSERT_EQ(visit(target.id(), seen), VisitResult::Visited);
        EXPECT_EQ(hostCalls, 0);
        pthread_kill(target.handle(), SIGURG);
        EXPECT_TRUE(eventually([] { return hostCalls == 1; }));
    }
    EXPECT_TRUE(hostSawInfo);
}

TEST_F(ThreadVisit, AHostThatChainsToItsPredecessorEndsInNoLoop) {
    const KeptSignalAction kept;
    TargetThread target(spinUntil);
    for (int round = 1; round <= 3; ++round) {
        Seen seen;
        ASSERT_EQ(visit(target.id(), seen), VisitResult::Visited);
        installHostHandler(nullptr, chainingHostHandler);
        hostCalls = 0;
        ASSERT_EQ(visit(target.id(), seen), VisitResult::Visited);
        pthread_kill(target.handle(), SIGURG);
        EXPECT_TRUE(eventually([] { return hostCalls > 0; }));
        ASSERT_EQ(visit(target.id(), seen), VisitResult::Visited);
        signal(SIGURG, SIG_DFL);
    }
}

TEST_F(ThreadVisit, AHostThatResetsAllSignalsIsNoticed) {
    const KeptSignalAction kept;
    TargetThread target(spinUntil);
    for (int round = 0; round < 100; ++round) {
        signal(SIGURG, round % 2 == 0 ? SIG_DFL : SIG_IGN);
        Seen seen;
        ASSERT_EQ(visit(target.id(), seen), VisitResult::Visited);
    }
}

TEST_F(ThreadVisit, TheHostsHandlerRunsWithItsOwnMaskAndMayJumpAway) {
    const KeptSignalAction kept;
    static sigjmp_buf jump;
    static std::atomic<int> jumps{0};
    static std::atomic<bool> otherSignalsOpen{true};
    installHostHandler(
        [](int) {
            sigset_t mask;
            pthread_sigmask(SIG_BLOCK, nullptr, &mask);
            otherSignalsOpen = sigismember(&mask, SIGTERM) == 0 && sigismember(&mask, SIGURG) == 1;
            siglongjmp(jump, 1);
        },
        nullptr);
    TargetThread target([](const std::atomic<bool>& stop) {
        if (sigsetjmp(jump, 1) != 0) {
            ++jumps;
        }
        spinUntil(stop);
    });
    for (int round = 1; round <= 20; ++round) {
        Seen seen;
        ASSERT_EQ(visit(target.id(), seen), VisitResult::Visited);
        pthread_kill(target.handle(), SIGURG);
        ASSERT_TRUE(eventually([&] { return jumps >= round; }));
        EXPECT_TRUE(otherSignalsOpen);
    }
}

TEST_F(ThreadVisit, AForkedChildVisitsItsOwnThreads) {
    TargetThread target(spinUntil);
    Seen seen;
    ASSERT_EQ(visit(target.id(), seen), VisitResult::Visited);
    const pid_t child = fork();
    if (child == 0) {
        Seen inChild;
        bool right = visit(target.id(), inChild) == VisitResult::NoSuchThread;
        TargetThread own(spinUntil);
        right = right && visit(own.id(), inChild) == VisitResult::Visited;
        _exit(right && inChild.visits == 1 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST_F(ThreadVisit, ErrnoAndVectorRegistersOfTheVisitedThreadStayIntact) {
    std::atomic<bool> intact{true};
    TargetThread target([&](const std::atomic<bool>& stop) {
        errno = 4711;
        double sum = 0;
        while (!stop) {
            double vector[4] = {1.0, 2.0, 3.0, 4.0};
            for (int i = 0; i < 1000; ++i) {
                for (double& element : vector) {
                    element += 1.0;
                }
                asm volatile("" : : "m"(vector));
            }
            sum = vector[0] + vector[1] + vector[2] + vector[3];
            if (sum != 4010.0 || errno != 4711) {
                intact = false;
            }
        }
    });
    for (int round = 0; round < 1000; ++round) {
        Seen seen;
        ASSERT_EQ(visit(target.id(), seen), VisitResult::Visited);
    }
    EXPECT_TRUE(intact);
}

}  // namespace
}  // namespace ThreadUtilities
