// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/capture/thread_clock.h"

#include <cstdint>
#include <ctime>
#include <optional>

#include "linux/kernel_calls.h"

namespace ThreadUtilities::platform {

std::optional<std::uint64_t> threadRunTime(unsigned int threadId) noexcept {
    // The kernel's number for "processor time of this thread": the complement of its id, and
    // CPUCLOCK_PERTHREAD_MASK | CPUCLOCK_SCHED. It knows threads of the calling process only.
    const auto clock = static_cast<int>(~threadId << 3 | 6);
    timespec time{};
    if (threadId == 0 || kernelCall(SYS_clock_gettime, clock, argument(&time)) != 0) {
        return std::nullopt;
    }
    constexpr std::uint64_t nanosecondsPerSecond = 1'000'000'000;
    return static_cast<std::uint64_t>(time.tv_sec) * nanosecondsPerSecond +
           static_cast<std::uint64_t>(time.tv_nsec);
}

}  // namespace ThreadUtilities::platform
