// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/StackTrace.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <vector>

#include "platform/thread_context.h"
#include "support/fork_child.h"
#include "support/sanitizers.h"
#include "support/target_thread.h"

// What hosts do to themselves and to us.

namespace ThreadUtilities {
namespace {

constexpr unsigned long long untouched = 0xDEAD;

unsigned long long capture(unsigned int threadId, std::vector<unsigned long long>& frames) {
    frames.assign(128, untouched);
    return getStackTrace(threadId, frames.data(), frames.size(), true);
}

class Pipe {
 public:
    Pipe() { EXPECT_EQ(pipe2(ends_.data(), O_CLOEXEC), 0); }
    ~Pipe() {
        close(ends_[0]);
        close(ends_[1]);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    void signalOther() { EXPECT_EQ(write(ends_[1], "x", 1), 1); }
    bool wait() {
        char byte = 0;
        return read(ends_[0], &byte, 1) == 1;
    }
    [[nodiscard]] int readEnd() const { return ends_[0]; }

 private:
    std::array<int, 2> ends_{};
};

struct SeenUnderATracer {
    bool isTraced = false;
    unsigned long long ofTarget = 0;
    long unwritten = 0;
    unsigned long long ofSelf = 0;
};

// What is captured while some threads of this process are traced.
SeenUnderATracer captureWhileTraced(const std::vector<unsigned int>& traced, unsigned int target) {
    Pipe attached;
    Pipe end;
    ForkChild tracer([&] {
        const bool attaches = std::all_of(traced.begin(), traced.end(), [](unsigned int thread) {
            return ptrace(PTRACE_SEIZE, static_cast<pid_t>(thread), nullptr, nullptr) == 0;
        });
        attached.signalOther();
        end.wait();
        return attaches;  // its end lets the traced threads go
    });
    EXPECT_TRUE(attached.wait());
    SeenUnderATracer seen;
    std::vector<unsigned long long> frames;
    seen.ofTarget = capture(target, frames);
    seen.unwritten = std::count(frames.begin(), frames.end(), untouched);
    seen.ofSelf = capture(static_cast<unsigned int>(gettid()), frames);
    end.signalOther();
    seen.isTraced = tracer.endedWell();
    return seen;
}

TEST(UnderATracer, NothingIsCapturedAndNothingWritten) {
    TargetThread target(blockUntil);
    const auto self = static_cast<unsigned int>(gettid());
    ASSERT_TRUE(isCaptured(target.id()) && isCaptured(self));
    prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
    const SeenUnderATracer allTraced = captureWhileTraced({self, target.id()}, target.id());
    if (!allTraced.isTraced) {
        GTEST_SKIP() << "no permission to trace";
    }
    EXPECT_EQ(allTraced.ofTarget, 0U);
    EXPECT_EQ(allTraced.unwritten, 128);
    EXPECT_EQ(allTraced.ofSelf, 0U);

    const SeenUnderATracer targetTraced = captureWhileTraced({target.id()}, target.id());
    EXPECT_TRUE(targetTraced.isTraced);
    EXPECT_EQ(targetTraced.ofTarget, 0U);
    EXPECT_GT(targetTraced.ofSelf, 1U);
    EXPECT_TRUE(isCaptured(target.id()) && isCaptured(self));
}

TEST(ABlockedThread, IsNeitherWokenNorInterrupted) {
    if (underAddressSanitizer) {
        GTEST_SKIP() << framePointersAreKept;
    }
    Pipe end;
    int polled = 0;
    TargetThread target([&](const auto&) {
        // Any signal would end the wait early: no handler's flags have `poll` restarted.
        pollfd readable{end.readEnd(), POLLIN, 0};
        polled = poll(&readable, 1, -1);
    });
    EXPECT_TRUE(eventually([&] { return kernelViewOf(target.id()).sleeps; }));
    const unsigned long before = kernelViewOf(target.id()).switches;
    EXPECT_GT(before, 0U);
    for (int round = 0; round < 1000 && !HasFailure(); ++round) {
        EXPECT_TRUE(isCaptured(target.id()));
    }
    EXPECT_EQ(kernelViewOf(target.id()).switches, before);
    end.signalOther();
    target.join();
    EXPECT_EQ(polled, 1) << "interrupted";
}

// It may be a pager that captures, which would wait for itself (userfaultfd(2)).
TEST(ABlockedThread, IsNotMadeToTouchItsStack) {
    constexpr std::size_t size = 4096;
    auto* const page = static_cast<char*>(
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    Pipe end;
    std::atomic<bool> isReady{false};
    long polled = SYS_poll;
    TargetThread target([&](const auto&) {
        pollfd readable{end.readEnd(), POLLIN, 0};
        char* stack = page + size / 2;
        long result = SYS_poll;
        isReady = true;
        asm volatile("xchgq %%rsp, %[stack]\n\tsyscall\n\txchgq %%rsp, %[stack]"
                     : "+a"(result), [stack] "+r"(stack)
                     : "D"(&readable), "S"(1L), "d"(-1L)
                     : "rcx", "r11", "memory");
        polled = result;
    });
    EXPECT_TRUE(eventually([&] { return isReady && kernelViewOf(target.id()).sleeps; }));
    std::vector<unsigned long long> frames;
    EXPECT_EQ(capture(target.id(), frames), 0U);
    unsigned char isResident = 0;
    EXPECT_EQ(mincore(page, size, &isResident), 0);
    EXPECT_EQ(isResident & 1, 0);
    end.signalOther();
    target.join();
    EXPECT_EQ(polled, 1) << "interrupted";
    munmap(page, size);
}

std::size_t openDescriptors() {
    std::size_t count = 0;
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
        count += fcntl(descriptor, F_GETFD) >= 0 ? 1 : 0;
    }
    return count;
}

TEST(HostileHost, MayCloseOrUseUpAllDescriptors) {
    ForkChild child([] {
        TargetThread spinning(spinUntil);
        TargetThread blocked(blockUntil);
        const auto captureAll = [&] {
            return isCaptured(spinning.id()) && isCaptured(blocked.id());
        };
        bool well = captureAll();
        const std::size_t atFirst = openDescriptors();
        for (int round = 0; round < 200; ++round) {
            well = well && captureAll();
        }
        well = well && openDescriptors() == atFirst;
        // A daemon closes everything above its standard streams, then opens files of its own.
        closefrom(3);
        std::array<int, 20> hostsOwn{};
        for (int& descriptor : hostsOwn) {
            descriptor = open("/dev/null", O_RDWR);
        }
        well = well && captureAll();
        for (const int descriptor : hostsOwn) {
            well = well && fcntl(descriptor, F_GETFD) >= 0;
        }
        // None left at all.
        rlimit limit{3, 3};
        setrlimit(RLIMIT_NOFILE, &limit);
        closefrom(3);
        return well && captureAll();
    });
    EXPECT_TRUE(child.endedWell());
}

// Makes the listed system calls end so in this thread, and those that it starts, from now on.
bool denyCalls(const std::vector<int>& calls, std::uint32_t end = SECCOMP_RET_ERRNO | EPERM) {
    std::vector<sock_filter> program{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (const int call : calls) {
        program.push_back(
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned int>(call), 0, 1));
        program.push_back(BPF_STMT(BPF_RET | BPF_K, end));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

struct Sandbox {
    const char* name;
    /// None where the process is to be one that forbids its dump instead.
    std::vector<int> denied;
    bool signalsArrive = true;
    bool blockedThreadsAreSeen = true;
};

bool forbidDump() {
    constexpr uid_t nobody = 65534;
    return (geteuid() != 0 || setuid(nobody) == 0) && prctl(PR_SET_DUMPABLE, 0) == 0;
}

class InASandbox : public testing::TestWithParam<Sandbox> {};

TEST_P(InASandbox, WhatCannotBeDoneIsLeftOutQuietly) {
    if (underAddressSanitizer && !GetParam().signalsArrive && GetParam().blockedThreadsAreSeen) {
        GTEST_SKIP() << framePointersAreKept;
    }
    ForkChild child([] {
        const auto& denied = GetParam().denied;
        if (denied.empty() ? !forbidDump() : !denyCalls(denied)) {
            return true;
        }
        TargetThread spinning(spinUntil);
        TargetThread blocked(blockUntil);
        const auto self = static_cast<unsigned int>(gettid());
        bool well = isCaptured(self);
        for (int round = 0; round < 5; ++round) {
            std::vector<unsigned long long> frames;
            well = well && (capture(spinning.id(), frames) > 0) == GetParam().signalsArrive;
            well = well && isCaptured(blocked.id()) == GetParam().blockedThreadsAreSeen;
            well = well && capture(0x7ffffff, frames) == 0 && frames[0] == 0;
        }
        return well;
    });
    EXPECT_TRUE(child.endedWell());
}

INSTANTIATE_TEST_SUITE_P(
    Denied, InASandbox,
    testing::Values(Sandbox{"ItsDump", {}}, Sandbox{"ForeignReads", {SYS_process_vm_readv}},
                    Sandbox{"OpeningFiles", {SYS_openat, SYS_open}},
                    Sandbox{"QueuedSignals", {SYS_rt_tgsigqueueinfo}, false},
                    Sandbox{"ForeignReadsAndOpeningFiles",
                            {SYS_process_vm_readv, SYS_openat, SYS_open}},
                    Sandbox{"Everything",
                            {SYS_process_vm_readv, SYS_openat, SYS_open, SYS_rt_tgsigqueueinfo},
                            false,
                            false}),
    [](const auto& sandbox) { return sandbox.param.name; });

std::atomic<unsigned long long> returnFromRaise{0};

[[gnu::noinline]] void raiseAndReturn(int number) {
    returnFromRaise = reinterpret_cast<unsigned long long>(__builtin_return_address(0));
    raise(number);
    asm volatile("");
}

// Spins in a handler on an alternate stack, whose words only a system call may read.
[[gnu::noinline]] void spinOnAlternateStack(const std::atomic<bool>& stop) {
    static const std::atomic<bool>* stopped = nullptr;
    stopped = &stop;
    std::vector<char> memory(64 << 10);
    stack_t stack{memory.data(), 0, memory.size()};
    sigaltstack(&stack, nullptr);
    struct sigaction action{};
    action.sa_flags = SA_ONSTACK;
    action.sa_handler = [](int) { spinUntil(*stopped); };
    sigaction(SIGUSR2, &action, nullptr);
    raiseAndReturn(SIGUSR2);
    stack.ss_flags = SS_DISABLE;
    sigaltstack(&stack, nullptr);
}

TEST(HostileHost, MayHaveAFilterOfCallsForAllItsThreadsOrForOne) {
    ForkChild child([] {
        if (!denyCalls({})) {
            _exit(0);
        }
        TargetThread likeAll(spinOnAlternateStack);
        std::atomic<bool> isLocked{false};
        TargetThread lockedUp([&](const std::atomic<bool>& stop) {
            denyCalls({SYS_process_vm_readv, SYS_rt_sigprocmask, SYS_futex, SYS_getpid},
                      SECCOMP_RET_KILL_PROCESS);
            isLocked = true;
            spinUntil(stop);
        });
        const auto seesItsBody = [&] {
            std::vector<unsigned long long> frames;
            frames.resize(capture(likeAll.id(), frames));
            return std::find(frames.begin(), frames.end(), returnFromRaise) != frames.end();
        };
        bool well = eventually([&] { return isLocked && seesItsBody(); });
        for (int round = 0; round < 20; ++round) {
            well = well && isCaptured(lockedUp.id()) && seesItsBody();
        }
        // Where it is not held, the walk is the capturing thread's own.
        static bool mayCallSystem;
        const auto look = [](const platform::ThreadContext& context,
                             platform::VisitRoom&) noexcept {
            mayCallSystem = context.mayCallSystem;
            return platform::VisitorAnswer::Enough;
        };
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        std::vector<unsigned long long> frames(1);
        platform::visitThreadContext({lockedUp.id(), false, look, deadline}, frames);
        well = well && mayCallSystem;
        _exit(well ? 0 : 1);  // nobody can end the locked thread
    });
    EXPECT_EQ(child.result(), 0);
}

TEST(HostileHost, MayForkWhileCapturesAreUnderWay) {
    if (underAddressSanitizer) {
        GTEST_SKIP() << copiesMayHang;
    }
    TargetThread spinning(spinUntil);
    std::atomic<bool> stop{false};
    std::thread capturer([&] {
        while (!stop) {
            isCaptured(spinning.id());
        }
    });
    for (int round = 0; round < 20; ++round) {
        ForkChild child([&] {
            std::vector<unsigned long long> frames;
            TargetThread own(spinUntil);
            return capture(spinning.id(), frames) == 0 && isCaptured(own.id());
        });
        EXPECT_TRUE(child.endedWell());
    }
    stop = true;
    capturer.join();
}

TEST(HostileHost, MayEndItsMainThreadFirst) {
    ForkChild child([] {
        static const auto mainThread = static_cast<unsigned int>(gettid());
        std::thread([] {
            const bool well = eventually([] {
                std::vector<unsigned long long> frames;
                return capture(mainThread, frames) == 0 && frames[0] == 0;
            });
            _exit(well ? 0 : 1);
        }).detach();
        syscall(SYS_exit, 0);
        return false;
    });
    EXPECT_TRUE(child.endedWell());
}

}  // namespace
}  // namespace ThreadUtilities
