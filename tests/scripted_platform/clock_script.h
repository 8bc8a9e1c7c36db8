// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <chrono>
#include <vector>

namespace ThreadUtilities::scripted {

/// Puts the clock back to its start, empties the records and makes 4 hardware threads.
void resetClock();

/// Time stands still but for `advanceClock`, every sleep to its end, and every reading of the
/// clock by the given step (after it was read).
void advanceClock(std::chrono::nanoseconds duration);
void setAdvancePerReading(std::chrono::nanoseconds duration);

void setHardwareThreads(unsigned int count);

/// Every sleep asked for, of all threads, in order.
std::vector<std::chrono::nanoseconds> sleeps();

}  // namespace ThreadUtilities::scripted
