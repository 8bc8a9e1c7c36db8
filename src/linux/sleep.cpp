// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <linux/futex.h>
#include <sys/prctl.h>

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

void sleepPrecisely() noexcept {
    prctl(PR_SET_TIMERSLACK, 1UL);  // nanoseconds; 50,000 unless somebody set it
}

}  // namespace ThreadUtilities::platform
