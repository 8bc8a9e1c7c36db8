#include "platform/thread_clock.h"

#include "scripted_platform/thread_clock_script.h"

namespace ThreadUtilities {

std::optional<std::uint64_t> platform::threadRunTime(unsigned int threadId) noexcept {
    const auto found = scripted::threadRunTimes.find(threadId);
    return found == scripted::threadRunTimes.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace ThreadUtilities
