// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include <ThreadUtilities/StackTrace.h>
#include <ThreadUtilities/Threads.h>

#include "support/parked_thread.h"

namespace {

using testing::ContainsRegex;
using ThreadUtilities::getAllThreadStackTrace;

// Threads that hold the heap's and the module list's locks most of the time: a report that
// described a frame while one of them stood still would wait for itself.
TEST(StackReportTest, NeverWaitsForAThreadThatItStopped) {
    std::vector<std::jthread> busy;
    for (int i = 0; i < 2; ++i) {
        busy.emplace_back([](const std::stop_token& stop) {
            while (!stop.stop_requested()) {
                delete[] new char[100000];
                ThreadUtilities::getFrameDetails(0, 1);
            }
        });
    }
    const ThreadUtilities::ParkedThread named([] { ThreadUtilities::setThreadName("worker"); });
    const std::string line = "\\[" + std::to_string(named.id()) +
                             "\\]\\[worker\\][^\n]*stack_report_system_test\\+0x[^\n]*[}];\n";
    const std::string own =
        "\\[" + ThreadUtilities::getThreadIdString() + "\\]\\[\\]libThreadUtilities\\.so";
    for (int i = 0; i < 100; ++i) {
        const auto [report, error] = getAllThreadStackTrace({});
        EXPECT_THAT(report, testing::AllOf(ContainsRegex(line), ContainsRegex(own)));
        EXPECT_EQ(error, "");
    }
}

}  // namespace
