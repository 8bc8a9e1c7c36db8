// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/clock.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <thread>

#include "scripted_platform/clock_script.h"

namespace ThreadUtilities {
namespace {

using std::chrono::nanoseconds;

// Far from zero, so that code may look back from it.
constexpr nanoseconds startOfTime = std::chrono::hours(1000);

std::atomic<nanoseconds::rep> currentTime = startOfTime.count();
std::atomic<nanoseconds> perReading = nanoseconds(0);
std::atomic<unsigned int> hardwareThreadCount = 4;

std::mutex sleepMutex;
std::vector<nanoseconds> sleepRecord;

}  // namespace

namespace scripted {

void resetClock() {
    currentTime = startOfTime.count();
    perReading = nanoseconds(0);
    hardwareThreadCount = 4;
    const std::lock_guard lock(sleepMutex);
    sleepRecord.clear();
}

void advanceClock(nanoseconds duration) {
    currentTime += duration.count();
}

void setAdvancePerReading(nanoseconds duration) {
    perReading = duration;
}

void setHardwareThreads(unsigned int count) {
    hardwareThreadCount = count;
}

std::vector<nanoseconds> sleeps() {
    const std::lock_guard lock(sleepMutex);
    return sleepRecord;
}

}  // namespace scripted

namespace platform {

std::chrono::steady_clock::time_point steadyNow() noexcept {
    return std::chrono::steady_clock::time_point(
        nanoseconds(currentTime.fetch_add(perReading.load().count())));
}

void sleepUntil(std::chrono::steady_clock::time_point time) {
    {
        const std::lock_guard lock(sleepMutex);
        const nanoseconds remaining = time.time_since_epoch() - nanoseconds(currentTime);
        sleepRecord.push_back(remaining);
        scripted::advanceClock(std::max(remaining, nanoseconds(0)));
    }
    std::this_thread::yield();
}

bool sleepUntilOrWoken(std::chrono::steady_clock::time_point, const std::atomic<std::uint32_t>&,
                       std::uint32_t) noexcept {
    return false;
}

void wakeSleepers(const std::atomic<std::uint32_t>&) noexcept {}

void sleepPrecisely() noexcept {}

unsigned int hardwareThreads() noexcept {
    return hardwareThreadCount;
}

}  // namespace platform
}  // namespace ThreadUtilities
