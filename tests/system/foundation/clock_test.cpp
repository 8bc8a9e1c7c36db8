#include "platform/clock.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>

namespace ThreadUtilities::platform {
namespace {

TEST(Clock, SleepsAtLeastAsLongAsAskedAndNotAtAllForNothing) {
    const auto begin = steadyNow();
    sleepFor(std::chrono::milliseconds(0));
    sleepFor(std::chrono::milliseconds(-1000000));
    sleepFor(std::chrono::milliseconds(3));
    EXPECT_GE(steadyNow() - begin, std::chrono::milliseconds(3));
}

TEST(Clock, HardwareThreadsAreTheProcessorsOnline) {
    EXPECT_GT(hardwareThreads(), 0u);
    EXPECT_LE(hardwareThreads(), static_cast<unsigned int>(sysconf(_SC_NPROCESSORS_CONF)));
}

}  // namespace
}  // namespace ThreadUtilities::platform
