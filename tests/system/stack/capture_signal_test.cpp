// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/capture/capture_signal.h"

#include <ThreadUtilities/StackTrace.h>
#include <asm/prctl.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <array>
#include <csetjmp>
#include <csignal>
#include <vector>

#include "platform/thread_context.h"
#include "support/fork_child.h"
#include "support/sanitizers.h"
#include "support/target_thread.h"

// The C library's own: takes the lowest real-time signal away from the program.
extern "C" int __libc_allocate_rtsig(int high);  // NOLINT

// The signal of captures in hosts that use signals, and in copies of the library, as they like.

namespace ThreadUtilities {
namespace {

using platform::captureSignal;
using platform::ThreadContext;
using platform::VisitorAnswer;
using platform::VisitResult;
using platform::VisitRoom;

struct KernelAction {
    void* function = nullptr;
    unsigned long flags = 0;
    void* restorer = nullptr;
    unsigned long mask = 0;
};

KernelAction exchangeAction(int number, const KernelAction* next) {
    KernelAction previous;
    EXPECT_EQ(syscall(SYS_rt_sigaction, number, next, &previous, sizeof(previous.mask)), 0);
    return previous;
}

// The C library carries changes of a process's ids to all threads by the same signal.
TEST(CaptureSignal, LeavesTheCLibraryItsOwn) {
    ForkChild child([] {
        TargetThread spinning(spinUntil);
        const KernelAction untouched = exchangeAction(captureSignal(), nullptr);
        bool well = true;
        for (int round = 0; round < 50; ++round) {
            well = well && isCaptured(spinning.id()) && setresgid(-1, getegid(), -1) == 0;
            if (round % 10 == 0) {
                // As the C library puts it in place at the first start of a thread.
                exchangeAction(captureSignal(), &untouched);
            }
        }
        return well;
    });
    EXPECT_TRUE(child.endedWell());
}

// The new program would be killed by one: its action is the default one again.
TEST(PendingCaptureSignal, DoesNotOutliveItsProgram) {
    const auto pendingAfterExec = [](bool ofCaptures) {
        ForkChild child([&] {
            const std::uint64_t everything = ~std::uint64_t{0};
            syscall(SYS_rt_sigprocmask, SIG_BLOCK, &everything, nullptr, sizeof(everything));
            const auto self = static_cast<unsigned int>(gettid());
            if (ofCaptures) {
                platform::sendCaptureSignal(self);
            } else {
                syscall(SYS_tgkill, getpid(), self, captureSignal());
            }
            execlp("grep", "grep", "-q", "^SigPnd:\t0*$", "/proc/self/status", nullptr);
            return 2;
        });
        return child.result();
    };
    EXPECT_EQ(pendingAfterExec(true), 0);
    EXPECT_EQ(pendingAfterExec(false), 1) << "the check itself";
}

// As with another C library, which has the usual signal for something else.
TEST(CaptureSignal, OfTheSecondChoiceGivesWayToTheHosts) {
    ForkChild child([] {
        __libc_allocate_rtsig(1);
        TargetThread spinning(spinUntil);
        bool well = captureSignal() == SIGURG && isCaptured(spinning.id());
        static std::atomic<int> handled{0};
        struct sigaction host{};
        host.sa_handler = [](int) { ++handled; };
        sigaction(SIGURG, &host, nullptr);
        well = well && !isCaptured(spinning.id());
        struct sigaction found{};
        sigaction(SIGURG, nullptr, &found);
        well = well && found.sa_handler == host.sa_handler && handled == 0;
        signal(SIGURG, SIG_IGN);
        return well && isCaptured(spinning.id());
    });
    EXPECT_TRUE(child.endedWell());
}

TEST(CaptureSignal, FindsRoomInAQueueThatWasFull) {
    ForkChild child([] {
        TargetThread spinning(spinUntil);
        rlimit limit{};
        getrlimit(RLIMIT_SIGPENDING, &limit);
        bool well = isCaptured(spinning.id());
        for (const rlim_t most : {rlim_t{0}, limit.rlim_cur}) {
            const rlimit next{most, limit.rlim_max};
            setrlimit(RLIMIT_SIGPENDING, &next);
            for (int round = 0; round < 3; ++round) {
                well = well && isCaptured(spinning.id()) == (most != 0);
            }
        }
        return well;
    });
    EXPECT_TRUE(child.endedWell());
}

// The target changes the action once its capturer has seen to that and naps.
TEST(CaptureSignal, IsSentAgainWhereAnotherActionTookIt) {
    ForkChild child([] {
        signal(SIGUSR2, [](int) {});
        const KernelAction others = exchangeAction(SIGUSR2, nullptr);
        const auto self = static_cast<unsigned int>(gettid());
        std::atomic<bool> begin{false};
        TargetThread target([&](const std::atomic<bool>& stop) {
            const std::uint64_t everything = ~std::uint64_t{0};
            syscall(SYS_rt_sigprocmask, SIG_BLOCK, &everything, nullptr, sizeof(everything));
            spinUntil(begin);
            const unsigned long before = kernelViewOf(self).switches;
            while (kernelViewOf(self).switches == before) {
            }
            exchangeAction(captureSignal(), &others);
            syscall(SYS_rt_sigprocmask, SIG_UNBLOCK, &everything, nullptr, sizeof(everything));
            spinUntil(stop);
        });
        begin = true;
        return isCaptured(target.id());
    });
    EXPECT_TRUE(child.endedWell());
}

using CaptureByCopy = unsigned long long (*)(unsigned int);

TEST(CaptureSignal, IsSharedByCopiesOfTheLibraryAndOutlivesThem) {
    if (underAddressSanitizer) {
        GTEST_SKIP() << "reports the globals that every copy has";
    }
    ForkChild child([] {
        TargetThread spinning(spinUntil);
        std::vector<void*> plugins;
        std::vector<CaptureByCopy> captures;
        for (const char* const name : {COPY_IN_first_PLUGIN, COPY_IN_second_PLUGIN}) {
            plugins.push_back(dlopen(name, RTLD_NOW | RTLD_LOCAL));
            captures.push_back(
                reinterpret_cast<CaptureByCopy>(dlsym(plugins.back(), "captureByCopy")));
        }
        const KernelAction untouched = exchangeAction(captureSignal(), nullptr);
        bool well = isCaptured(spinning.id());
        for (int round = 0; round < 100; ++round) {
            for (const CaptureByCopy capture : captures) {
                well = well && capture(spinning.id()) > 0;
            }
            well = well && isCaptured(spinning.id());
            // With the C library's action in the way each copy must come back, in any order, and
            // that action must stay within reach of all.
            if (round % 10 == 9) {
                exchangeAction(captureSignal(), &untouched);
                std::swap(captures.front(), captures.back());
            }
            well = well && setresgid(-1, getegid(), -1) == 0;
        }
        exchangeAction(captureSignal(), &untouched);
        well = well && captures.front()(spinning.id()) > 0;
        std::thread ending([&] {
            captures.front()(spinning.id());
            for (void* const plugin : plugins) {
                dlclose(plugin);
            }
        });
        ending.join();
        return well && isCaptured(spinning.id()) && setresgid(-1, getegid(), -1) == 0;
    });
    EXPECT_TRUE(child.endedWell());
}

VisitResult visit(unsigned int threadId, platform::ContextVisitor visitor) {
    std::array<unsigned long long, 1> frames{};
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    return platform::visitThreadContext({threadId, true, visitor, deadline}, frames).result;
}

// So that slots must be taken back from the threads that they were left to.
constexpr int moreThanAllSlots = 150;

TEST(Handler, MayBeLeftByAJumpOfTheHosts) {
    static thread_local sigjmp_buf jump;
    struct sigaction action{};
    action.sa_handler = [](int) { siglongjmp(jump, 1); };
    sigaction(SIGILL, &action, nullptr);
    TargetThread target([](const std::atomic<bool>& stop) {
        sigsetjmp(jump, 1);
        spinUntil(stop);
    });
    const auto leave = [](const ThreadContext&, VisitRoom&) noexcept -> VisitorAnswer {
        __builtin_trap();
    };
    std::array<unsigned long long, 1> frames{};
    for (int round = 0; round < moreThanAllSlots; ++round) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(3);
        platform::visitThreadContext({target.id(), true, leave, deadline}, frames);
    }
    EXPECT_TRUE(isCaptured(target.id()));
    signal(SIGILL, SIG_DFL);
}

TEST(Handler, IsNotInterruptedByTheHosts) {
    static std::atomic<int> handled{0};
    static std::atomic<bool> wasInterrupted{false};
    handled = 0;
    struct sigaction action{};
    action.sa_handler = [](int) { ++handled; };
    sigaction(SIGUSR1, &action, nullptr);
    TargetThread target(spinUntil);
    const auto raiseInIt = [](const ThreadContext&, VisitRoom&) noexcept {
        raise(SIGUSR1);
        wasInterrupted = handled != 0;
        return VisitorAnswer::Enough;
    };
    EXPECT_EQ(visit(target.id(), raiseInIt), VisitResult::Visited);
    EXPECT_TRUE(eventually([] { return handled == 1; }));
    EXPECT_FALSE(wasInterrupted);
    signal(SIGUSR1, SIG_DFL);
}

TEST(Handler, MayEndWithItsThread) {
    if (underAddressSanitizer) {
        GTEST_SKIP() << threadsMustSayThatTheyEnd;
    }
    ForkChild child([] {
        const auto end = [](const ThreadContext&, VisitRoom&) noexcept -> VisitorAnswer {
            syscall(SYS_exit, 0);
            return VisitorAnswer::Enough;
        };
        bool well = true;
        for (int round = 0; round < moreThanAllSlots; ++round) {
            TargetThread target(spinUntil);
            well = well && visit(target.id(), end) == VisitResult::NoSuchThread;
        }
        TargetThread spinning(spinUntil);
        return well && isCaptured(spinning.id());
    });
    EXPECT_TRUE(child.endedWell());
}

TEST(Handler, NeedsNoThreadLocalStorage) {
    TargetThread target([](const std::atomic<bool>& stop) {
        unsigned long segment = 0;
        syscall(SYS_arch_prctl, ARCH_GET_FS, &segment);
        asm volatile(
            "xorl %%esi, %%esi\n\t"
            "syscall\n"
            "1:\n\t"
            "pause\n\t"
            "cmpb $0, (%[stop])\n\t"
            "je 1b\n\t"
            "movl $158, %%eax\n\t"
            "movq %[segment], %%rsi\n\t"
            "syscall"
            :
            : "a"(SYS_arch_prctl), "D"(ARCH_SET_FS), [stop] "r"(&stop), [segment] "r"(segment)
            : "rcx", "r11", "rsi", "memory", "cc");
    });
    for (int round = 0; round < 20; ++round) {
        EXPECT_TRUE(isCaptured(target.id()));
    }
}

}  // namespace
}  // namespace ThreadUtilities
