#include "platform/thread_clock.h"

#include <map>
#include <mutex>

#include "scripted_platform/thread_clock_script.h"

namespace ThreadUtilities {
namespace {

std::mutex timesMutex;
std::map<unsigned int, std::uint64_t> times;

}  // namespace

void scripted::setThreadRunTime(unsigned int threadId, std::uint64_t time) {
    const std::lock_guard lock(timesMutex);
    times[threadId] = time;
}

void scripted::resetThreadRunTimes() {
    const std::lock_guard lock(timesMutex);
    times.clear();
}

std::optional<std::uint64_t> platform::threadRunTime(unsigned int threadId) noexcept {
    const std::lock_guard lock(timesMutex);
    const auto found = times.find(threadId);
    return found == times.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace ThreadUtilities
