#include "platform/thread_clock.h"

namespace ThreadUtilities::platform {

// The times that the system keeps of a thread are counted in ticks of the system timer; a thread
// can run between two of them.
std::optional<std::uint64_t> threadRunTime(unsigned int) noexcept {
    return std::nullopt;
}

}  // namespace ThreadUtilities::platform
