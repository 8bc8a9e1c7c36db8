// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <ratio>
#include <thread>

#include "platform/clock.h"
#include "windows/handle.h"

#ifndef CREATE_WAITABLE_TIMER_HIGH_RESOLUTION
#define CREATE_WAITABLE_TIMER_HIGH_RESOLUTION 0x2
#endif

namespace ThreadUtilities::platform {

// The system's clock ticks every 15.6 ms unless some program asks for more; timers of high
// resolution (Windows 10 1803) keep to half a millisecond without that.
void sleepUntil(std::chrono::steady_clock::time_point time) {
    using Ticks = std::chrono::duration<LONGLONG, std::ratio<1, 10'000'000>>;
    constexpr Ticks longest = std::chrono::hours(24);
    while (true) {
        const auto remaining = time - std::chrono::steady_clock::now();
        if (remaining.count() <= 0) {
            return;
        }
        const Handle timer(CreateWaitableTimerExW(
            nullptr, nullptr, CREATE_WAITABLE_TIMER_HIGH_RESOLUTION, TIMER_ALL_ACCESS));
        const Ticks ticks =
            std::min(std::chrono::duration_cast<Ticks>(remaining) + Ticks(1), longest);
        LARGE_INTEGER relative;
        relative.QuadPart = -ticks.count();
        if (!timer || SetWaitableTimer(timer.get(), &relative, 0, nullptr, nullptr, FALSE) == 0 ||
            WaitForSingleObject(timer.get(), INFINITE) != WAIT_OBJECT_0) {
            std::this_thread::sleep_until(time);
            return;
        }
    }
}

// What can be woken keeps to the system's ticks.
bool sleepUntilOrWoken(std::chrono::steady_clock::time_point, const std::atomic<std::uint32_t>&,
                       std::uint32_t) noexcept {
    return false;
}

void wakeSleepers(const std::atomic<std::uint32_t>&) noexcept {}

void sleepPrecisely() noexcept {}

}  // namespace ThreadUtilities::platform
