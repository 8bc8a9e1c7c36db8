#pragma once

// The time that a thread has spent on a processor.

#include <cstdint>
#include <optional>

namespace ThreadUtilities::platform {

/// A clock that stands still exactly as long as the thread does not run: two equal readings prove
/// that it did not run between them. None for a thread that does not exist in this process, and on
/// a system whose clocks are too coarse for the proof. Allocates nothing, and takes no lock.
std::optional<std::uint64_t> threadRunTime(unsigned int threadId) noexcept;

}  // namespace ThreadUtilities::platform
