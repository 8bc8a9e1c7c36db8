// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "waits/times.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>

namespace ThreadUtilities::companion {
namespace {

constexpr std::int64_t millisecond = 1'000'000;
constexpr std::int64_t second = 1'000 * millisecond;
/// Some 30 years: beyond it a programmer meant "without an end".
constexpr std::int64_t longestSeconds = 1'000'000'000;

std::optional<std::int64_t> nanosecondsOf(const timespec& time) {
    if (time.tv_nsec < 0 || time.tv_nsec >= second || time.tv_sec < 0) {
        return std::nullopt;
    }
    return std::min<std::int64_t>(time.tv_sec, 8 * longestSeconds) * second + time.tv_nsec;
}

std::string twoUnits(std::int64_t amount, const char* large, std::int64_t perLarge,
                     const char* small) {
    return std::to_string(amount / perLarge) + large + std::to_string(amount % perLarge) + small;
}

}  // namespace

std::string durationText(std::int64_t nanoseconds) {
    const std::int64_t seconds = nanoseconds / second;
    if (seconds >= longestSeconds) {
        return "years";
    }
    if (seconds >= 48 * 3600) {
        return twoUnits(seconds / 3600, " days ", 24, " h");
    }
    if (seconds >= 3600) {
        return twoUnits(seconds / 60, " h ", 60, " min");
    }
    if (seconds >= 120) {
        return twoUnits(seconds, " min ", 60, " s");
    }
    if (seconds == 0) {
        return std::to_string(nanoseconds / millisecond) + " ms";
    }
    const std::int64_t tenths = nanoseconds % second / (100 * millisecond);
    return std::to_string(seconds) + (tenths == 0 ? "" : "." + std::to_string(tenths)) + " s";
}

std::string atMost(std::int64_t nanoseconds) {
    return ", for at most " + durationText(nanoseconds);
}

std::optional<std::int64_t> readDuration(const Target& target, std::uint64_t address) {
    timespec time = {};
    return address != 0 && target.read(address, time) ? nanosecondsOf(time) : std::nullopt;
}

std::optional<std::int64_t> readTimeUntil(const Target& target, clockid_t clock,
                                          std::uint64_t address) {
    const bool isComparable =
        clock == CLOCK_REALTIME ||
        (target.sharesClocks() && (clock == CLOCK_MONOTONIC || clock == CLOCK_BOOTTIME));
    const auto end = readDuration(target, address);
    timespec now = {};
    if (!isComparable || !end || clock_gettime(clock, &now) != 0) {
        return std::nullopt;
    }
    return std::max<std::int64_t>(*end - *nanosecondsOf(now), 0);
}

std::string untilThen(std::optional<std::int64_t> nanoseconds) {
    return nanoseconds ? ", for " + durationText(*nanoseconds) + " more" : ", for a limited time";
}

}  // namespace ThreadUtilities::companion
