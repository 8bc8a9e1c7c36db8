#include "platform/clock.h"

#include <algorithm>
#include <atomic>
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
std::atomic<unsigned long long> yields = 0;

std::mutex sleepMutex;
std::vector<std::chrono::milliseconds> sleepRecord;

}  // namespace

namespace scripted {

void resetClock() {
    currentTime = startOfTime.count();
    perReading = nanoseconds(0);
    hardwareThreadCount = 4;
    yields = 0;
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
    return std::chrono::steady_clock::time_point(
        nanoseconds(currentTime.fetch_add(perReading.load().count())));
}

void sleepFor(std::chrono::milliseconds duration) {
    {
        const std::lock_guard lock(sleepMutex);
        sleepRecord.push_back(duration);
    }
    scripted::advanceClock(std::max(duration, std::chrono::milliseconds(0)));
    std::this_thread::yield();
}

void yieldProcessor() noexcept {
    ++yields;
    std::this_thread::yield();
}

unsigned int hardwareThreads() noexcept {
    return hardwareThreadCount;
}

}  // namespace platform
}  // namespace ThreadUtilities
