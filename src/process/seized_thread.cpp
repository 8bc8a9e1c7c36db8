// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "process/seized_thread.h"

#include <elf.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>

#include "linux/kernel_calls.h"
#include "platform/thread_context.h"

namespace ThreadUtilities::process {

using platform::argument;
using platform::kernelCall;
using std::chrono::steady_clock;

namespace {

long trace(long request, unsigned int threadId, long address = 0, long data = 0) {
    return kernelCall(SYS_ptrace, request, threadId, address, data);
}

platform::Registers registersOf(const user_regs_struct& saved) {
    platform::Registers registers;
    registers[platform::Rax] = saved.rax;
    registers[platform::Rdx] = saved.rdx;
    registers[platform::Rcx] = saved.rcx;
    registers[platform::Rbx] = saved.rbx;
    registers[platform::Rsi] = saved.rsi;
    registers[platform::Rdi] = saved.rdi;
    registers[platform::Rbp] = saved.rbp;
    registers[platform::Rsp] = saved.rsp;
    registers[platform::R8] = saved.r8;
    registers[platform::R9] = saved.r9;
    registers[platform::R10] = saved.r10;
    registers[platform::R11] = saved.r11;
    registers[platform::R12] = saved.r12;
    registers[platform::R13] = saved.r13;
    registers[platform::R14] = saved.r14;
    registers[platform::R15] = saved.r15;
    registers[platform::Rip] = saved.rip;
    return registers;
}

// Those that fail with EINTR when a stop ends their wait, signal handler or not (signal(7)), and
// have done nothing then: no event taken, no byte moved. A `connect` goes on where it was.
bool failsWhenStopped(unsigned long systemCall) {
    constexpr long waitsForEventsOfRings = 426;  // io_uring_enter, which older headers do not name
    constexpr long waitsForEventsPrecisely = 441;  // epoll_pwait2
    constexpr std::array calls{static_cast<long>(SYS_epoll_wait),
                               static_cast<long>(SYS_epoll_pwait),
                               waitsForEventsPrecisely,
                               waitsForEventsOfRings,
                               static_cast<long>(SYS_rt_sigtimedwait),
                               static_cast<long>(SYS_semop),
                               static_cast<long>(SYS_semtimedop),
                               static_cast<long>(SYS_io_getevents),
                               static_cast<long>(SYS_read),
                               static_cast<long>(SYS_readv),
                               static_cast<long>(SYS_recvfrom),
                               static_cast<long>(SYS_recvmsg),
                               static_cast<long>(SYS_recvmmsg),
                               static_cast<long>(SYS_accept),
                               static_cast<long>(SYS_accept4),
                               static_cast<long>(SYS_write),
                               static_cast<long>(SYS_writev),
                               static_cast<long>(SYS_sendto),
                               static_cast<long>(SYS_sendmsg),
                               static_cast<long>(SYS_sendmmsg),
                               static_cast<long>(SYS_sendfile),
                               static_cast<long>(SYS_splice),
                               static_cast<long>(SYS_connect)};
    return std::find(calls.begin(), calls.end(), static_cast<long>(systemCall)) != calls.end();
}

}  // namespace

SeizedThread::SeizedThread(unsigned int threadId) noexcept
    : id(threadId), seizeError(static_cast<int>(-trace(PTRACE_SEIZE, threadId))) {}

bool SeizedThread::readRegisters() noexcept {
    iovec room{&saved, sizeof(saved)};
    return trace(PTRACE_GETREGSET, id, NT_PRSTATUS, argument(&room)) == 0;
}

// Also when it has taken another id, that of its process, by an execve(2). A stop is told of too,
// whatever is asked for.
bool SeizedThread::hasEnded() const noexcept {
    siginfo_t told{};
    const long error =
        kernelCall(SYS_waitid, P_PID, id, argument(&told), WEXITED | WNOHANG | WNOWAIT | __WALL);
    return error != 0 || (told.si_pid != 0 && told.si_code != CLD_TRAPPED);
}

// The registers themselves are asked for until they are told, which is when the thread stands
// still: an answer that nobody in this process can take away by a wait for any child. A sleep
// between the first questions would make the stop longer by as much as the worker wakes up late.
// Others get the processor between two of them, the thread itself where it is on the same one,
// unless this worker has precedence. A thread that has not come by then waits for a processor, for
// this one perhaps; or for something that nothing ends.
//
// It is waited for however long that takes. The request has been noted with the thread, and the
// first wait that it goes into ends because of that; only at a stop that is reached can the wait be
// taken up again.
bool SeizedThread::stop(platform::Registers& registers) noexcept {
    constexpr auto worthYielding = std::chrono::microseconds(100);
    constexpr std::chrono::nanoseconds shortest = std::chrono::microseconds(50);
    constexpr std::chrono::nanoseconds longest = std::chrono::milliseconds(10);
    const auto asked = steady_clock::now();
    began = asked;
    if (trace(PTRACE_INTERRUPT, id) != 0) {
        return false;
    }
    while (!readRegisters()) {
        if (hasEnded()) {
            return false;
        }
        began = steady_clock::now();
        if (began < asked + worthYielding) {
            kernelCall(SYS_sched_yield);
        } else {
            platform::sleepFor(std::clamp((began - asked) / 100, shortest, longest));
        }
    }
    standsStill = true;
    resumeCutWait();
    registers = registersOf(saved);
    return true;
}

// The thread went into a wait between our look at it and the stop, which ended the wait. Most waits
// are taken up again by the kernel. For the others it is told to, in its own words: "as if nothing
// had happened, unless a signal handler runs; then it failed with EINTR". What a time limit has
// lost by this are the microseconds since that look.
void SeizedThread::resumeCutWait() const noexcept {
    constexpr long restartUnlessHandled =
        -514;  // ERESTARTNOHAND, which no header of the system's has
    const bool isInSystemCall = static_cast<long>(saved.orig_rax) >= 0;
    if (isInSystemCall && static_cast<long>(saved.rax) == -EINTR &&
        failsWhenStopped(saved.orig_rax)) {
        trace(PTRACE_POKEUSER, id, offsetof(user_regs_struct, rax), restartUnlessHandled);
    }
}

// What stopped it was our request or a stop of the whole process, both of which the kernel calls an
// event; else a signal that arrived just then.
int SeizedThread::signalBeingDelivered() const noexcept {
    siginfo_t info{};
    if (trace(PTRACE_GETSIGINFO, id, 0, argument(&info)) != 0) {
        return 0;
    }
    const bool isEvent = info.si_code >> 8 == PTRACE_EVENT_STOP;
    return isEvent ? 0 : info.si_signo;
}

bool SeizedThread::letGo() noexcept {
    if (!standsStill && !readRegisters()) {
        return false;
    }
    return trace(PTRACE_DETACH, id, 0, signalBeingDelivered()) == 0;
}

}  // namespace ThreadUtilities::process
