#include "platform/clock.h"

#include <atomic>
#include <mutex>
#include <thread>

#include "scripted_platform/clock_script.h"

namespace ThreadUtilities {
namespace {

using std::chrono::nanoseconds;

// Far from zero, so that code may look back from it.
constexpr nanoseconds startOfTime = std::chrono::hours(1000);

std::atomic<nanoseconds> currentTime = startOfTime;
std::atomic<nanoseconds> perYield = nanoseconds(0);
std::atomic<nanoseconds> perReading = nanoseconds(0);
std::atomic<unsigned int> hardwareThreadCount = 4;
std::atomic<unsigned long long> yields = 0;

std::mutex sleepMutex;
std::vector<std::chrono::milliseconds> sleepRecord;

nanoseconds moveTime(nanoseconds by) {
    nanoseconds before = currentTime;
    while (!currentTime.compare_exchange_weak(before, before + by)) {
    }
    return before;
}

}  // namespace

namespace scripted {

void resetClock() {
    currentTime = startOfTime;
    perYield = nanoseconds(0);
    perReading = nanoseconds(0);
    hardwareThreadCount = 4;
    yields = 0;
    const std::lock_guard lock(sleepMutex);
    sleepRecord.clear();
}

void advanceClock(nanoseconds duration) {
    moveTime(duration);
}

void setAdvancePerYield(nanoseconds duration) {
    perYield = duration;
}

void setAdvancePerReading(nanoseconds duration) {
    perReading = duration;
}

void setHardwareThreads(unsigned int count) {
    hardwareThreadCount = count;
}

std::vector<std::chrono::milliseconds> sleeps() {
    const std::lock_guard lock(sleepMutex);
    return sleepRecord;
}

unsigned long long yieldCount() {
    return yields;
}

}  // namespace scripted

namespace platform {

std::chrono::steady_clock::time_point steadyNow() noexcept {
    return std::chrono::steady_clock::time_point(moveTime(perReading));
}

void sleepFor(std::chrono::milliseconds duration) {
    {
        const std::lock_guard lock(sleepMutex);
        sleepRecord.push_back(duration);
    }
    if (duration.count() > 0) {
        moveTime(duration);
    }
    std::this_thread::yield();
}

void yieldProcessor() noexcept {
    ++yields;
    moveTime(perYield);
    std::this_thread::yield();
}

unsigned int hardwareThreads() noexcept {
    return hardwareThreadCount;
}

}  // namespace platform
}  // namespace ThreadUtilities
