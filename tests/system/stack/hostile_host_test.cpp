#include <ThreadUtilities/StackTrace.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <vector>

#include "system/stack/target_thread.h"

// What hosts do to themselves and to us.

namespace ThreadUtilities {
namespace {

using AGarbageStackPointer = WithPromptSignals;
using Descriptors = WithPromptSignals;
using AProcessThatMayNotBeDumped = WithPromptSignals;
using AForkedChild = WithPromptSignals;
using AMainThreadThatEndedFirst = WithPromptSignals;

constexpr unsigned long long untouched = 0xDEAD;

unsigned long long capture(unsigned int threadId, std::vector<unsigned long long>& frames) {
    frames.assign(128, untouched);
    return getStackTrace(threadId, frames.data(), frames.size(), true);
}

bool isCaptured(unsigned int threadId) {
    std::vector<unsigned long long> frames;
    return capture(threadId, frames) > 1;
}

void blockUntil(const std::atomic<bool>& stop) {
    while (!stop) {
        poll(nullptr, 0, 10);
    }
}

// A child process, for what a test must not do to its own process. `body` runs in the child and
// says whether all was well.
class Child {
 public:
    explicit Child(const std::function<bool()>& body) : id_(fork()) {
        if (id_ == 0) {
            alarm(120);
            _exit(body() ? 0 : 1);
        }
    }
    [[nodiscard]] pid_t id() const { return id_; }
    [[nodiscard]] bool endedWell() const {
        int status = -1;
        return waitpid(id_, &status, 0) == id_ && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

 private:
    pid_t id_;
};

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

 private:
    std::array<int, 2> ends_{};
};

TEST(UnderATracer, NothingIsCapturedAndNothingWritten) {
    Pipe attached;
    Pipe ready;
    const Child child([&] {
        prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
        TargetThread target(blockUntil);
        const auto self = static_cast<unsigned int>(gettid());
        const bool before = isCaptured(target.id()) && isCaptured(self);
        ready.signalOther();
        attached.wait();
        std::vector<unsigned long long> frames;
        bool quiet = capture(target.id(), frames) == 0 && capture(self, frames) == 0;
        quiet = quiet && std::count(frames.begin(), frames.end(), untouched) == 128;
        ready.signalOther();
        attached.wait();
        return before && quiet && isCaptured(target.id()) && isCaptured(self);
    });
    ASSERT_TRUE(ready.wait());
    if (ptrace(PTRACE_SEIZE, child.id(), nullptr, nullptr) != 0) {
        attached.signalOther();
        attached.signalOther();
        EXPECT_FALSE(child.endedWell());
        GTEST_SKIP() << "no permission to trace a child";
    }
    attached.signalOther();
    ASSERT_TRUE(ready.wait());
    // A thread must be stopped to be let go.
    ASSERT_EQ(ptrace(PTRACE_INTERRUPT, child.id(), nullptr, nullptr), 0);
    ASSERT_EQ(waitpid(child.id(), nullptr, 0), child.id());
    ASSERT_EQ(ptrace(PTRACE_DETACH, child.id(), nullptr, nullptr), 0);
    attached.signalOther();
    EXPECT_TRUE(child.endedWell());
}

TEST(ABlockedThread, IsNeitherWokenNorInterrupted) {
    std::atomic<int> returns{0};
    Pipe end;
    TargetThread target([&](const auto&) {
        end.wait();
        ++returns;
    });
    TargetThread timed([&](const std::atomic<bool>& stop) {
        while (!stop) {
            // Any signal would end this one early, restarted handlers or not.
            if (poll(nullptr, 0, 2'000) != 0) {
                ++returns;
            }
        }
    });
    ASSERT_TRUE(eventually(
        [&] { return kernelViewOf(target.id()).sleeps && kernelViewOf(timed.id()).sleeps; }));
    const unsigned long before = kernelViewOf(target.id()).switches;
    ASSERT_GT(before, 0U);
    for (int round = 0; round < 1000; ++round) {
        ASSERT_TRUE(isCaptured(target.id()));
        ASSERT_TRUE(isCaptured(timed.id()));
    }
    EXPECT_EQ(kernelViewOf(target.id()).switches, before);
    EXPECT_EQ(returns, 0);
    end.signalOther();
}

// Runs with `stackPointer` in place of the stack until told to stop. An alternate stack lets the
// kernel call handlers nevertheless.
void spinWithStackPointer(std::uint64_t stackPointer, const std::atomic<bool>& stop,
                          std::atomic<bool>& garbage) {
    std::vector<char> memory(64 << 10);
    stack_t stack{memory.data(), 0, memory.size()};
    sigaltstack(&stack, nullptr);
    asm volatile(
        "movq %%rsp, %%r12\n\t"
        "movq %%rbp, %%r13\n\t"
        "movq %0, %%rsp\n\t"
        "movq %0, %%rbp\n\t"
        "movb $1, (%2)\n"
        "1:\n\t"
        "pause\n\t"
        "cmpb $0, (%1)\n\t"
        "je 1b\n\t"
        "movq %%r13, %%rbp\n\t"
        "movq %%r12, %%rsp"
        :
        : "a"(stackPointer), "D"(&stop), "S"(&garbage)
        : "r12", "r13", "memory", "cc");
    stack.ss_flags = SS_DISABLE;
    sigaltstack(&stack, nullptr);
}

TEST_F(AGarbageStackPointer, EndsTheWalkAndNothingElse) {
    for (const std::uint64_t garbage :
         {0x0ULL, 0x8ULL, 0xdeadbeefULL, 0x7fffffffffffULL, 0xdeadbeef00000000ULL, ~0ULL}) {
        std::atomic<bool> isGarbage{false};
        TargetThread target(
            [&](const std::atomic<bool>& stop) { spinWithStackPointer(garbage, stop, isGarbage); });
        ASSERT_TRUE(eventually([&] { return isGarbage.load(); }));
        for (int round = 0; round < 20; ++round) {
            std::vector<unsigned long long> frames;
            EXPECT_LE(capture(target.id(), frames), 1U) << std::hex << garbage;
        }
    }
}

std::size_t openDescriptors() {
    std::size_t count = 0;
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
        count += fcntl(descriptor, F_GETFD) >= 0 ? 1 : 0;
    }
    return count;
}

TEST_F(Descriptors, AreNotLeakedWhateverTheHostDoesToThem) {
    const Child child([] {
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

// Makes the listed system calls fail in this process from now on.
bool denyCalls(const std::vector<int>& calls) {
    std::vector<sock_filter> program{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (const int call : calls) {
        program.push_back(
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned int>(call), 0, 1));
        program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

struct Sandbox {
    const char* name;
    std::vector<int> denied;
    bool signalsArrive = true;
    bool blockedThreadsAreSeen = true;
};

class InASandbox : public WithPromptSignals, public testing::WithParamInterface<Sandbox> {};

TEST_P(InASandbox, WhatCannotBeDoneIsLeftOutQuietly) {
    const Child child([] {
        if (!denyCalls(GetParam().denied)) {
            return true;
        }
        TargetThread spinning(spinUntil);
        TargetThread blocked([](const std::atomic<bool>& stop) {
            while (!stop) {
                poll(nullptr, 0, 50);
            }
        });
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

INSTANTIATE_TEST_SUITE_P(Denied, InASandbox,
                         testing::Values(Sandbox{"ForeignReads", {SYS_process_vm_readv}},
                                         Sandbox{"OpeningFiles", {SYS_openat, SYS_open}},
                                         Sandbox{"QueuedSignals", {SYS_rt_tgsigqueueinfo}, false},
                                         Sandbox{"ForeignReadsAndOpeningFiles",
                                                 {SYS_process_vm_readv, SYS_openat, SYS_open}},
                                         Sandbox{"Everything",
                                                 {SYS_process_vm_readv, SYS_openat, SYS_open,
                                                  SYS_rt_tgsigqueueinfo},
                                                 false,
                                                 false}),
                         [](const auto& sandbox) { return sandbox.param.name; });

TEST_F(AProcessThatMayNotBeDumped, CapturesItself) {
    const Child child([] {
        constexpr uid_t nobody = 65534;
        if (geteuid() == 0 && setuid(nobody) != 0) {
            return false;
        }
        prctl(PR_SET_DUMPABLE, 0);
        TargetThread spinning(spinUntil);
        TargetThread blocked(blockUntil);
        return isCaptured(spinning.id()) && isCaptured(blocked.id()) &&
               isCaptured(static_cast<unsigned int>(gettid()));
    });
    EXPECT_TRUE(child.endedWell());
}

TEST_F(AForkedChild, CapturesItsOwnThreadsWhileCapturesWereUnderWay) {
    TargetThread spinning(spinUntil);
    std::atomic<bool> stop{false};
    std::thread capturer([&] {
        while (!stop) {
            isCaptured(spinning.id());
        }
    });
    for (int round = 0; round < 20; ++round) {
        const Child child([&] {
            std::vector<unsigned long long> frames;
            TargetThread own(spinUntil);
            return capture(spinning.id(), frames) == 0 && isCaptured(own.id());
        });
        EXPECT_TRUE(child.endedWell());
    }
    stop = true;
    capturer.join();
}

TEST_F(AMainThreadThatEndedFirst, IsNoThreadAnyMore) {
    const Child child([] {
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
