#include <gtest/gtest.h>

#include <csetjmp>
#include <csignal>

#include "platform/thread_context.h"
#include "support/target_thread.h"

// Visits to threads of a host that uses the signal, its mask and its own handlers as it likes.

namespace ThreadUtilities {
namespace {

using platform::ThreadContext;
using platform::VisitorAnswer;
using platform::VisitResult;

class ThreadVisit : public WithPromptSignals {
 protected:
    // The signal's action is put back as the test found it.
    ThreadVisit() { sigaction(SIGURG, nullptr, &kept_); }
    ~ThreadVisit() override { sigaction(SIGURG, &kept_, nullptr); }

 private:
    struct sigaction kept_ {};
};

VisitResult visit(unsigned int threadId, int& visits) {
    const auto look = [](const ThreadContext&, void* count) noexcept {
        ++*static_cast<int*>(count);
        return VisitorAnswer::Enough;
    };
    return platform::visitThreadContext(threadId, true, look, &visits);
}

VisitResult visit(unsigned int threadId) {
    int visits = 0;
    return visit(threadId, visits);
}

TEST_F(ThreadVisit, ThreadsThatAreNotOursDoNotExist) {
    unsigned int ended = 0;
    {
        TargetThread target([](const auto&) {});
        ended = target.id();
    }
    for (const unsigned int id : {0U, 1U, ended, 0x7fffffffU, 0x80000000U, 0xffffffffU}) {
        int visits = 0;
        EXPECT_EQ(visit(id, visits), VisitResult::NoSuchThread) << id;
        EXPECT_EQ(visits, 0) << id;
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
    int visits = 0;
    EXPECT_EQ(visit(target.id(), visits), VisitResult::NotAnswering);
    unblock = true;
    ASSERT_TRUE(eventually([&] { return unblocked.load(); }));
    EXPECT_EQ(visits, 0);
    EXPECT_EQ(visit(target.id(), visits), VisitResult::Visited);
    EXPECT_EQ(visits, 1);
}

struct sigaction hostPrevious {};
std::atomic<int> hostCalls{0};
std::atomic<int> hostSignals{0};

void chainingHostHandler(int number, siginfo_t* info, void* context) {
    ++hostCalls;
    if (info->si_code == SI_TKILL && info->si_pid == getpid()) {
        ++hostSignals;
    }
    if ((hostPrevious.sa_flags & SA_SIGINFO) != 0) {
        hostPrevious.sa_sigaction(number, info, context);
    }
}

TEST_F(ThreadVisit, AHostsHandlerGetsItsOwnSignalsAndMayChainToItsPredecessor) {
    TargetThread target(spinUntil);
    for (int round = 0; round < 4; ++round) {
        ASSERT_EQ(visit(target.id()), VisitResult::Visited);
        struct sigaction action {};
        action.sa_sigaction = chainingHostHandler;
        action.sa_flags = SA_SIGINFO;
        ASSERT_EQ(sigaction(SIGURG, &action, &hostPrevious), 0);
        hostCalls = hostSignals = 0;
        ASSERT_EQ(visit(target.id()), VisitResult::Visited);
        EXPECT_EQ(hostCalls, 0) << "the library's own signal is none of the host's";
        pthread_kill(target.handle(), SIGURG);
        EXPECT_TRUE(eventually([] { return hostSignals > 0; }));
        ASSERT_EQ(visit(target.id()), VisitResult::Visited);
        signal(SIGURG, round % 2 == 0 ? SIG_DFL : SIG_IGN);
    }
}

TEST_F(ThreadVisit, TheHostsHandlerRunsWithItsOwnMaskAndMayJumpAway) {
    static sigjmp_buf jump;
    static std::atomic<int> jumps{0};
    static std::atomic<bool> otherSignalsOpen{true};
    signal(SIGURG, [](int) {
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        otherSignalsOpen = sigismember(&mask, SIGTERM) == 0 && sigismember(&mask, SIGURG) == 1;
        siglongjmp(jump, 1);
    });
    TargetThread target([](const std::atomic<bool>& stop) {
        if (sigsetjmp(jump, 1) != 0) {
            ++jumps;
        }
        spinUntil(stop);
    });
    for (int round = 1; round <= 20; ++round) {
        ASSERT_EQ(visit(target.id()), VisitResult::Visited);
        pthread_kill(target.handle(), SIGURG);
        ASSERT_TRUE(eventually([&] { return jumps >= round; }));
        EXPECT_TRUE(otherSignalsOpen);
    }
}

}  // namespace
}  // namespace ThreadUtilities
