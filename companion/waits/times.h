// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

/// \file
/// How long a wait takes.

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "process/target.h"

namespace ThreadUtilities::companion {

/// "250 ms", "3.2 s", "2 min 5 s", "3 h 0 min".
std::string durationText(std::int64_t nanoseconds);

/// ", for at most 5 s": what has passed of it is not known.
std::string atMost(std::int64_t nanoseconds);

/// Of a timespec in the process; nothing for none.
std::optional<std::int64_t> readDuration(const Target& target, std::uint64_t address);

/// Of a timespec in the process that is a point in time of a clock: how long it is until then.
/// Nothing where there is none, or the clock is not the same here.
std::optional<std::int64_t> readTimeUntil(const Target& target, clockid_t clock,
                                          std::uint64_t address);

/// ", for 3.2 s more".
std::string untilThen(std::optional<std::int64_t> nanoseconds);

}  // namespace ThreadUtilities::companion
