// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <sys/prctl.h>

#include <chrono>
#include <thread>

#include "platform/clock.h"

namespace ThreadUtilities::platform {

void sleepUntil(std::chrono::steady_clock::time_point time) {
    std::this_thread::sleep_until(time);
}

void sleepPrecisely() noexcept {
    prctl(PR_SET_TIMERSLACK, 1UL);  // nanoseconds; 50,000 unless somebody set it
}

}  // namespace ThreadUtilities::platform
