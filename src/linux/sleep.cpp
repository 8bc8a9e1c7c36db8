// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <linux/futex.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <thread>

#include "linux/kernel_calls.h"
#include "platform/clock.h"

namespace ThreadUtilities::platform {

void sleepUntil(std::chrono::steady_clock::time_point time) {
    std::this_thread::sleep_until(time);
}

// By the monotonic clock, as `steady_clock` is.
bool sleepUntilOrWoken(std::chrono::steady_clock::time_point time,
                       const std::atomic<std::uint32_t>& word, std::uint32_t seen) noexcept {
    const auto end =
        std::max(std::chrono::nanoseconds(time.time_since_epoch()), std::chrono::nanoseconds(0));
    const timespec timeout = timespecOf(end);
    kernelCall(SYS_futex, argument(&word), FUTEX_WAIT_BITSET_PRIVATE, seen, argument(&timeout), 0,
               FUTEX_BITSET_MATCH_ANY);
    return true;
}

void wakeSleepers(const std::atomic<std::uint32_t>& word) noexcept {
    futexWakeAll(word);
}

namespace {

/// `struct sched_attr` of sched_setattr(2), as far as its first version goes; C libraries before
/// 2.41 do not declare it.
struct SchedulingAttributes {
    std::uint32_t size = sizeof(SchedulingAttributes);
    std::uint32_t policy = 0;
    std::uint64_t flags = 0;
    std::int32_t nice = 0;
    std::uint32_t priority = 0;
    std::uint64_t runtime = 0;  ///< nanoseconds
    std::uint64_t deadline = 0;
    std::uint64_t period = 0;
};

/// The kernel lets a thread that wakes up go before one that runs if it asks for a shorter turn.
/// Otherwise the thread waits until the other one sleeps or has had its turn. Kernels before 6.12
/// leave a usual thread's turn as it is.
void askForShortTurns() noexcept {
    constexpr std::uint64_t shortest = 100'000;  // nanoseconds
    constexpr long wholeStruct = sizeof(SchedulingAttributes);
    SchedulingAttributes attributes;
    if (kernelCall(SYS_sched_getattr, 0, argument(&attributes), wholeStruct, 0) == 0 &&
        attributes.policy == SCHED_OTHER) {
        attributes.runtime = shortest;
        kernelCall(SYS_sched_setattr, 0, argument(&attributes), 0);
    }
}

}  // namespace

void sleepPrecisely() noexcept {
    prctl(PR_SET_TIMERSLACK, 1UL);  // nanoseconds; 50,000 unless somebody set it
    askForShortTurns();
}

}  // namespace ThreadUtilities::platform
