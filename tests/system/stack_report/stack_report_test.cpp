// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

#include <ThreadUtilities/StackTrace.h>
#include <ThreadUtilities/Threads.h>

#include "support/parked_thread.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;
using ThreadUtilities::getAllThreadStackTrace;
using ThreadUtilities::getStackTrace;
using ThreadUtilities::getThreadId;
using ThreadUtilities::getThreadIds;
using ThreadUtilities::ParkedThread;

struct Line {
    std::string name;
    std::string trace;
};

/// The lines of an all-threads report by thread id. Every line has to have its form.
std::map<unsigned int, Line> linesOf(const std::string& report) {
    std::map<unsigned int, Line> lines;
    std::istringstream in(report);
    for (std::string line; std::getline(in, line);) {
        const std::size_t idEnd = line.find("][");
        const std::size_t nameEnd = line.find(']', idEnd + 2);
        EXPECT_EQ(line.front(), '[');
        if (nameEnd == std::string::npos) {
            ADD_FAILURE() << line;
            continue;
        }
        const auto id = static_cast<unsigned int>(std::stoul(line.substr(1, idEnd - 1)));
        lines[id] = {line.substr(idEnd + 2, nameEnd - idEnd - 2), line.substr(nameEnd + 1)};
        EXPECT_THAT(lines[id].trace, testing::EndsWith("};")) << line;
    }
    return lines;
}

TEST(StackReportTest, TellsNamedAndUnnamedThreadsAndTheCaller) {
    const ParkedThread named([] { ThreadUtilities::setThreadName("worker"); });
    const ParkedThread unnamed;
    const auto [report, error] = getAllThreadStackTrace({});
    EXPECT_EQ(error, "");
    auto lines = linesOf(report);
    EXPECT_EQ(lines[named.id()].name, "worker");
    EXPECT_EQ(lines[unnamed.id()].name, "");
    EXPECT_THAT(lines[unnamed.id()].trace, HasSubstr("stack_report_system_test+0x"));
    EXPECT_THAT(lines[getThreadId()].trace, StartsWith("libThreadUtilities.so"));
    EXPECT_THAT(getStackTrace({}, named.id()), HasSubstr("stack_report_system_test+0x"));
    EXPECT_EQ(getStackTrace({}, 0), "");
}

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
    for (int i = 0; i < 100; ++i) {
        linesOf(getAllThreadStackTrace({}).first);
    }
}

TEST(StackReportTest, TellsAThousandThreads) {
    std::map<unsigned int, std::string> names;
    std::vector<std::unique_ptr<ParkedThread>> threads;
    for (int i = 0; i < 1000; ++i) {
        const std::string name = "w" + std::to_string(i);
        threads.push_back(
            std::make_unique<ParkedThread>([&] { ThreadUtilities::setThreadName(name); }));
        names[threads.back()->id()] = name;
    }
    auto lines = linesOf(getAllThreadStackTrace({}).first);
    EXPECT_EQ(lines.size(), getThreadIds().size());
    for (const auto& [id, name] : names) {
        EXPECT_EQ(lines[id].name, name);
    }
}

}  // namespace
