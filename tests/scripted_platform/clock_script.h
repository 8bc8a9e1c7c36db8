#pragma once

#include <chrono>
#include <vector>

namespace ThreadUtilities::scripted {

/// Puts the clock back to its start, empties the records and makes 4 hardware threads.
void resetClock();

/// Time stands still but for these: `advanceClock`, every sleep by its length, every yield by the
/// given step and every reading of the clock by the given step (after it was read).
void advanceClock(std::chrono::nanoseconds duration);
void setAdvancePerYield(std::chrono::nanoseconds duration);
void setAdvancePerReading(std::chrono::nanoseconds duration);

void setHardwareThreads(unsigned int count);

/// Every sleep asked for, of all threads, in order.
std::vector<std::chrono::milliseconds> sleeps();
unsigned long long yieldCount();

}  // namespace ThreadUtilities::scripted
