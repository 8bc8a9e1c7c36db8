// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Arithmetic of points in time and durations that stops at the ends of what 64 bits can hold, so
// that "for ever" may be said with `std::chrono::seconds::max()`.

#include <chrono>
#include <ratio>
#include <type_traits>

namespace ThreadUtilities {

using TimePoint = std::chrono::steady_clock::time_point;

/// A duration of whole nanoseconds or coarser in nanoseconds.
template <typename Count, typename Ratio>
constexpr std::chrono::nanoseconds saturatingNanoseconds(
    std::chrono::duration<Count, Ratio> duration) noexcept {
    using Duration = std::chrono::duration<Count, Ratio>;
    using std::chrono::nanoseconds;
    static_assert(std::is_same_v<Count, nanoseconds::rep>);
    static_assert(std::ratio_greater_equal_v<Ratio, std::nano>);
    if (duration > std::chrono::duration_cast<Duration>(nanoseconds::max())) {
        return nanoseconds::max();
    }
    if (duration < std::chrono::duration_cast<Duration>(nanoseconds::min())) {
        return nanoseconds::min();
    }
    return std::chrono::duration_cast<nanoseconds>(duration);
}

/// The point in time that lies `duration` after `time`.
constexpr TimePoint saturatingAdd(TimePoint time, std::chrono::nanoseconds duration) noexcept {
    if (duration.count() > 0 && time > TimePoint::max() - duration) {
        return TimePoint::max();
    }
    if (duration.count() < 0 && time < TimePoint::min() - duration) {
        return TimePoint::min();
    }
    return time + duration;
}

}  // namespace ThreadUtilities
