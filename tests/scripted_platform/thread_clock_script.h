#pragma once

#include <cstdint>

namespace ThreadUtilities::scripted {

/// What `platform::threadRunTime` answers for a thread from now on; for all others it has none.
void setThreadRunTime(unsigned int threadId, std::uint64_t time);
void resetThreadRunTimes();

}  // namespace ThreadUtilities::scripted
