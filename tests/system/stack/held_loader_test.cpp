// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/Sampling.h>
#include <ThreadUtilities/StackTrace.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <future>
#include <iterator>
#include <latch>
#include <string>

#include "support/parked_thread.h"
#include "support/target_thread.h"

// The plug-in calls it while the loader runs its initialiser.
extern "C" {
using InitialiserHook = void (*)();
InitialiserHook pluginInitialiserHook = nullptr;
}

namespace ThreadUtilities {
namespace {

using namespace std::chrono_literals;

struct Threads {
    unsigned int blocked;
    unsigned int running;
};

struct Question {
    const char* name;
    bool (*isAnswered)(const Threads& threads);
};

bool isDescribed(unsigned int threadId) {
    unsigned long long frames[64];
    return getStackTrace(threadId, frames, std::size(frames), true) > 1 &&
           !getFrameDetails(0, frames[0]).empty();
}

bool areAllIn(const std::string& report, const std::string& before, const Threads& threads) {
    return report.find(before + std::to_string(threads.blocked)) != std::string::npos &&
           report.find(before + std::to_string(threads.running)) != std::string::npos;
}

class WhileAConstructorHangs : public testing::TestWithParam<Question> {};

std::latch constructorRuns{1};
std::latch constructorMayEnd{1};

// One case in each process, because only the first question of all looks up what later ones have.
TEST_P(WhileAConstructorHangs, TheFirstQuestionIsAnswered) {
    const ParkedThread blocked;
    const TargetThread running(spinUntil);
    pluginInitialiserHook = [] {
        constructorRuns.count_down();
        constructorMayEnd.wait();
    };
    std::thread opener([] { dlclose(dlopen(HOOKED_PLUGIN, RTLD_NOW | RTLD_LOCAL)); });
    constructorRuns.wait();
    std::packaged_task<bool()> ask(
        [&] { return GetParam().isAnswered({blocked.id(), running.id()}); });
    auto answer = ask.get_future();
    std::thread asking(std::move(ask));
    EXPECT_EQ(answer.wait_for(30s), std::future_status::ready);
    constructorMayEnd.count_down();
    EXPECT_TRUE(answer.get());
    asking.join();
    opener.join();
}

INSTANTIATE_TEST_SUITE_P(
    Of, WhileAConstructorHangs,
    testing::Values(Question{"ABlockedThread",
                             [](const auto& threads) { return isDescribed(threads.blocked); }},
                    Question{"ARunningThread",
                             [](const auto& threads) { return isDescribed(threads.running); }},
                    Question{"Itself",
                             [](const auto&) {
                                 return isDescribed(static_cast<unsigned int>(gettid()));
                             }},
                    Question{"AReport",
                             [](const auto& threads) {
                                 return areAllIn(getAllThreadStackTrace({}).first, "[", threads);
                             }},
                    Question{"Sampling",
                             [](const auto& threads) {
                                 return areAllIn(sampleAllThreads(1s, 10ms), "Thread ", threads);
                             }}),
    [](const auto& question) { return question.param.name; });

}  // namespace
}  // namespace ThreadUtilities
