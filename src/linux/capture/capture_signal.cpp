// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/capture/capture_signal.h"

#include <sched.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <optional>

#include "linux/capture/handler/capture_handler.h"
#include "linux/capture/handler/handler_chain.h"
#include "linux/kernel_calls.h"
#include "platform/fork_child.h"
#include "platform/memory.h"

// Which signal. Any that the host can use it may use, block, wait for or ignore, and a second one
// of a kind is merged with a pending one, so that either side loses its own. The GNU C library
// keeps signal 33 for itself, to carry `setuid` to all threads. Since that must reach every thread,
// its `sigfillset`, `pthread_sigmask` and `sigwait` leave the signal out and its `sigaction`
// refuses it: the host cannot get at it but by raw system calls. As a real-time signal it queues.
//
// Its handler ignores every code but SI_TKILL from the own process, therefore ours is let through
// unharmed where it is not in front; what comes with that code we pass on to it. It is installed
// when the process starts (up to 2.33, or when the thread library is loaded) or at the first
// `pthread_create` (from 2.34), without a look at what is there: hence a look before each capture,
// and ours goes in front again. A thread that has this signal blocked starts, ends, spawns a
// process or is in our handler, all of which passes at once, or it used raw system calls.
//
// The code is SI_TIMER. A pending real-time signal outlives `execve`, which resets its action, and
// would kill the new program; but `execve` drops pending signals with this code, as it ends the
// timers that they come from. Where the limit of queued signals is used up, a signal from 32 on is
// refused and never arrives without its information.
//
// Another C library keeps other signals for itself (one cancels threads by 33). It is known by its
// lowest real-time signal. There it is SIGURG, harmless to who has no handler for it, as long as
// the host has none.

namespace ThreadUtilities::platform {
namespace {

constexpr int keptByTheCLibrary = 33;

/// As the kernel has it, on x86-64.
struct KernelAction {
    std::uintptr_t function = 0;
    unsigned long flags = 0;
    std::uintptr_t restorer = 0;
    std::uint64_t mask = 0;
};

constexpr unsigned long hasRestorer = 0x04000000;

std::uintptr_t ownFunction() {
    return reinterpret_cast<std::uintptr_t>(&onCaptureSignal);
}

// Two threads that find the handler missing must not both install it: the one that comes second
// would take the first one's idea of what was there before for older than its own.
constinit std::atomic<bool> installing{false};
RestartInForkChild endInstallationInForkChild([] { installing = false; });

long exchangeAction(int number, const KernelAction* next, KernelAction* previous) {
    return kernelCall(SYS_rt_sigaction, number, argument(next), argument(previous),
                      sizeof(KernelAction::mask));
}

bool doesNothing(std::uintptr_t function) {
    return function == reinterpret_cast<std::uintptr_t>(SIG_DFL) ||
           function == reinterpret_cast<std::uintptr_t>(SIG_IGN);
}

// Nothing may interrupt a handler between its claim and its answer, for the interrupting handler
// could jump away and leave the capturer waiting. What a thread does to itself is let through: a
// sandbox may serve our system calls in a handler for SIGSYS.
constexpr std::uint64_t everythingAsynchronous() {
    std::uint64_t mask = ~std::uint64_t{0};
    for (const int synchronous : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGTRAP, SIGSYS}) {
        mask &= ~(std::uint64_t{1} << (synchronous - 1));
    }
    return mask;
}

template <typename T>
bool readAt(std::uintptr_t address, T& out) {
    return readOwnMemory(address, &out, sizeof(out)) == sizeof(out);
}

/// What an action passes its signals on to, if it is one of a copy of this library.
struct LinkSeen {
    std::uintptr_t function = 0;
    std::uintptr_t restorer = 0;
};
static_assert(sizeof(LinkSeen) == sizeof(ChainLink));

std::optional<LinkSeen> linkBehind(std::uintptr_t restorer) {
    ChainMark mark{};
    LinkSeen link;
    const std::uintptr_t markAddress = restorer - chainMarkDistance;
    if (restorer < chainMarkDistance || !readAt(markAddress, mark) ||
        mark.first != chainMarkFirst || mark.second != chainMarkSecond ||
        !readAt(markAddress + offsetof(ChainMark, linkOffset) +
                    static_cast<std::uintptr_t>(mark.linkOffset),
                link)) {
        return std::nullopt;
    }
    return link;
}

enum class Place { Installed, Elsewhere, Unknown };

// Whether this copy's handler is `action`'s or is reached through it.
Place placeIn(const KernelAction& action) {
    LinkSeen seen{action.function, action.restorer};
    for (unsigned int hops = 0; hops < mostChainedHandlers; ++hops) {
        if (seen.function == ownFunction()) {
            return Place::Installed;
        }
        const auto next = linkBehind(seen.restorer);
        if (!next) {
            return Place::Elsewhere;
        }
        seen = *next;
    }
    return Place::Unknown;
}

// Whether ours may go in front of `current`.
bool mayReplace(int number, const KernelAction& current) {
    if (number != keptByTheCLibrary) {
        return doesNothing(current.function);
    }
    // Where nothing can be known of other copies, whatever was not there the last time may be one
    // with this copy behind it.
    const std::uintptr_t known = previousAction.function.load(std::memory_order_relaxed);
    return canCopyOwnMemory() || doesNothing(known) || known == current.function;
}

void setPreviousAction(const KernelAction& action) {
    previousAction.restorer.store(action.restorer, std::memory_order_release);
    previousAction.function.store(action.function, std::memory_order_release);
}

bool install(int number) {
    KernelAction current;
    if (exchangeAction(number, nullptr, &current) != 0) {
        return false;
    }
    const Place place = placeIn(current);
    if (place != Place::Elsewhere || !mayReplace(number, current)) {
        return place == Place::Installed;
    }
    KernelAction ours;
    ours.function = ownFunction();
    ours.flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART | hasRestorer;
    ours.restorer = reinterpret_cast<std::uintptr_t>(&tuCaptureRestorer);
    ours.mask = everythingAsynchronous();
    setPreviousAction(current);
    KernelAction replaced;
    if (exchangeAction(number, &ours, &replaced) != 0) {
        return false;
    }
    if (replaced.function != current.function && replaced.function != ours.function) {
        setPreviousAction(replaced);  // somebody was quicker
    }
    return true;
}

// A queue that is full for a moment is waited for; one that stays full would cost every capture of
// a running thread that wait, and a sampler of fifty its second. Hence the wait is the process's
// and not the capture's: it begins when a signal is refused, ends with the first that is taken, and
// once it has lasted this long without one, nobody waits. Each capture still tries once; therefore
// a queue with room is never taken for a full one, and room that comes is noticed by whoever comes
// next. What was seen long ago says nothing of now: then the wait begins anew.
class FullQueue {
 public:
    bool isWorthWaiting() noexcept {
        const Time now = nowInNanoseconds();
        const Time seen = lastSeen.exchange(now, std::memory_order_relaxed);
        Time since = fullSince.load(std::memory_order_relaxed);
        if (since == never || now - seen > longestMemory) {
            fullSince.store(now, std::memory_order_relaxed);
            since = now;
        }
        return now - since < longestWait;
    }
    void hadRoom() noexcept {
        if (fullSince.load(std::memory_order_relaxed) != never) {
            fullSince.store(never, std::memory_order_relaxed);
        }
    }

 private:
    using Time = std::chrono::nanoseconds::rep;

    static Time nowInNanoseconds() noexcept {
        const auto now = std::chrono::steady_clock::now().time_since_epoch();
        return std::chrono::nanoseconds(now).count();
    }

    static constexpr Time never = std::numeric_limits<Time>::min();
    static constexpr Time longestWait =
        std::chrono::nanoseconds(std::chrono::milliseconds(20)).count();
    static constexpr Time longestMemory =
        std::chrono::nanoseconds(std::chrono::milliseconds(200)).count();

    std::atomic<Time> fullSince{never};
    std::atomic<Time> lastSeen{0};
};

// Of moments, so that a fork child need not forget it.
constinit FullQueue fullQueue;

}  // namespace

int captureSignal() noexcept {
    return SIGRTMIN == keptByTheCLibrary + 1 ? keptByTheCLibrary : SIGURG;
}

bool ensureCaptureHandler() noexcept {
    const int number = captureSignal();
    constexpr int patience = 1000;
    for (int attempt = 0; attempt < patience; ++attempt) {
        KernelAction current;
        if (exchangeAction(number, nullptr, &current) == 0 && current.function == ownFunction()) {
            return true;
        }
        if (!installing.exchange(true, std::memory_order_acquire)) {
            const bool installed = install(number);
            installing.store(false, std::memory_order_release);
            return installed;
        }
        sched_yield();
    }
    return false;
}

SendResult sendCaptureSignal(unsigned int threadId) noexcept {
    const int number = captureSignal();
    siginfo_t info = captureSignalInfo(number, threadId);
    const long result = kernelCall(SYS_rt_tgsigqueueinfo, kernelProcessId(),
                                   static_cast<int>(threadId), number, argument(&info));
    switch (result) {
        case 0:
            fullQueue.hadRoom();
            return SendResult::Sent;
        case -ESRCH:
        case -EINVAL:  // no thread can have this id
            return SendResult::NoSuchThread;
        case -EAGAIN:
            return fullQueue.isWorthWaiting() ? SendResult::QueueFull : SendResult::Refused;
        default:
            return SendResult::Refused;
    }
}

}  // namespace ThreadUtilities::platform
