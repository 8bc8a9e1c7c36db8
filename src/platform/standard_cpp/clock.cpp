#include "platform/clock.h"

#include <thread>

namespace ThreadUtilities::platform {

std::chrono::steady_clock::time_point steadyNow() noexcept {
    return std::chrono::steady_clock::now();
}

void sleepFor(std::chrono::milliseconds duration) {
    std::this_thread::sleep_for(duration);
}

void yieldProcessor() noexcept {
    std::this_thread::yield();
}

unsigned int hardwareThreads() noexcept {
    return std::thread::hardware_concurrency();
}

}  // namespace ThreadUtilities::platform
