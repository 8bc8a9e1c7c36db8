#pragma once

#include <cstdint>
#include <map>

namespace ThreadUtilities::scripted {

/// What `platform::threadRunTime` answers for a thread; for all others it has none.
inline std::map<unsigned int, std::uint64_t> threadRunTimes;

}  // namespace ThreadUtilities::scripted
