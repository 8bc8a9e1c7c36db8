// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Reports of a real program: this one.

#include <ThreadUtilities/Sampling.h>
#include <ThreadUtilities/StackTrace.h>
#include <ThreadUtilities/Threads.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <optional>
#include <sstream>

#include "support/target_thread.h"

namespace ThreadUtilities {
namespace {

using namespace std::chrono_literals;

using Sampling = WithPromptSignals;

struct ThreadBlock {
    std::string name;
    std::size_t samples = 0;
    std::vector<std::string> frames;  ///< the lines of the block's frames
};

/// The thread blocks of a report by id; `order` receives the ids as they stand in it.
std::map<unsigned int, ThreadBlock> blocksOf(const std::string& report,
                                             std::vector<unsigned int>& order) {
    std::map<unsigned int, ThreadBlock> blocks;
    std::istringstream lines(report);
    ThreadBlock* current = nullptr;
    for (std::string line; std::getline(lines, line);) {
        unsigned int id = 0;
        std::size_t samples = 0;
        if (std::sscanf(line.c_str(), "Thread %u [%zu]: ", &id, &samples) == 2) {
            order.push_back(id);
            current = &blocks[id];
            *current = {line.substr(line.find("]: ") + 3), samples, {}};
        } else if (line.empty()) {
            current = nullptr;
        } else if (current != nullptr) {
            current->frames.push_back(line);
        }
    }
    return blocks;
}

/// The offset that a frame line of `module` shows; none for other modules.
std::optional<unsigned long long> offsetIn(const std::string& module, const std::string& line) {
    const std::string mark = "]: " + module + "+0x";
    const auto place = line.find(mark);
    if (place == std::string::npos) {
        return std::nullopt;
    }
    return std::stoull(line.substr(place + mark.size()), nullptr, 16);
}

// Both kept whole, so that a sample of the spinning thread has a return address in `spinInTurns`.
[[gnu::noinline, gnu::used]] void spinABit() {
    for (int turn = 0; turn < 100'000; ++turn) {
        asm volatile("");
    }
}
[[gnu::noinline, gnu::used]] void spinInTurns(const std::atomic<bool>& stop) {
    while (!stop) {
        spinABit();
    }
}

TEST_F(Sampling, AReportShowsWhereEachThreadIs) {
    TargetThread spinning([](const std::atomic<bool>& stop) {
        setThreadName("spinner");
        spinInTurns(stop);
    });
    TargetThread polling([](const std::atomic<bool>& stop) {
        while (!stop) {
            poll(nullptr, 0, 20);
        }
    });
    const std::string report = sampleAllThreads(1s, 5ms);
    std::vector<unsigned int> order;
    const auto blocks = blocksOf(report, order);
    ASSERT_FALSE(order.empty()) << report;
    EXPECT_EQ(order.front(), getMainThreadId());
    EXPECT_EQ(blocks.size(), 3u) << "this thread and two others, no sampler: " << report;

    std::size_t total = 0;
    for (const auto& [id, block] : blocks) {
        total += block.samples;
        EXPECT_GT(block.samples, 1u) << id;
    }
    EXPECT_EQ(report.find("Total sample count: " + std::to_string(total) + "\n"), 0u);

    ASSERT_TRUE(blocks.contains(spinning.id()));
    const ThreadBlock& spinner = blocks.at(spinning.id());
    EXPECT_EQ(spinner.name, "spinner");
    const std::wstring function =
        getFrameDetails(0, reinterpret_cast<unsigned long long>(&spinInTurns));
    const auto begin =
        offsetIn("sampling_system_test", "]: " + std::string(function.begin(), function.end()));
    ASSERT_TRUE(begin);
    EXPECT_TRUE(std::any_of(spinner.frames.begin(), spinner.frames.end(),
                            [&](const std::string& line) {
                                const auto offset = offsetIn("sampling_system_test", line);
                                return offset && *offset > *begin && *offset < *begin + 100;
                            }))
        << report;
}

TEST(SamplingOfThisProcess, SeveralRunsAtOnceShareNothingWhileThreadsComeAndGo) {
    const std::jthread starter([](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            std::jthread([] { setThreadName("brief"); }).join();
        }
    });
    std::vector<std::string> reports(3);
    {
        std::vector<std::jthread> runs;
        for (std::string& report : reports) {
            runs.emplace_back([&] { report = sampleAllThreads(1s, 20ms); });
        }
    }
    for (const std::string& report : reports) {
        EXPECT_EQ(report.find("Total sample count: "), 0u);
        std::vector<unsigned int> order;
        EXPECT_GE(blocksOf(report, order).size(), 4u) << report;
        EXPECT_EQ(order.front(), getMainThreadId());
    }
}

}  // namespace
}  // namespace ThreadUtilities
