// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Stacks of another process, beside the libraries that can do the same.
//
//   process_benchmark [OPTIONS OF THE BENCHMARK LIBRARY]
//   process_benchmark --stand BLOCKED RUNNING
//
// The second form is for commands to be measured: it tells the process id to look at, and for each
// line that it reads the longest time that the running thread did not run since the line before.

#include <ThreadUtilities/ProcessCapture.h>
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "process_target.h"

namespace {

using std::chrono::steady_clock;

class Ours : public Looker {
 public:
    explicit Ours(pid_t process) : capture(static_cast<unsigned int>(process)) {}

    std::size_t look(const std::vector<pid_t>& threads) override {
        std::size_t count = 0;
        for (const pid_t thread : threads) {
            // The address at which the thread stands is beside the frames.
            count += capture.look(static_cast<unsigned int>(thread), frames, 256).frameCount + 1;
        }
        return count;
    }

    ThreadUtilities::ProcessCapture capture;

 private:
    std::vector<unsigned long long> frames;
};

std::unique_ptr<Looker> makeOurs(pid_t process) {
    return std::make_unique<Ours>(process);
}

using Make = std::unique_ptr<Looker> (*)(pid_t);

// Two threads run, the others are blocked. The first pass is not counted. `wakes`: each blocked
// thread has run between two passes, so that nothing that is known of it helps.
void allStacks(benchmark::State& state, Make make, bool wakes) {
    const int count = static_cast<int>(state.range(0));
    const Target target(count - 2, 2);
    const auto looker = make(target.id());
    std::size_t frames = looker->look(target.threads());
    for (auto _ : state) {
        if (wakes) {
            target.wakeAll();
        }
        const auto begin = steady_clock::now();
        frames = looker->look(target.threads());
        state.SetIterationTime(std::chrono::duration<double>(steady_clock::now() - begin).count());
    }
    state.counters["frames"] = static_cast<double>(frames) / count;
}

std::uint64_t quantile(std::vector<std::uint64_t>& values, double part) {
    const auto index = static_cast<std::size_t>(part * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(index),
                     values.end());
    return values[index];
}

// For each look the longest time for which the running thread did not run, by its own clock; with
// `make` null without any look. What else the machine does is in it.
void stopOfARunningThread(benchmark::State& state, Make make) {
    const Target target(0, 1);
    const auto looker = make != nullptr ? make(target.id()) : nullptr;
    if (looker) {
        looker->look(target.threads());
    }
    std::vector<std::uint64_t> gaps;
    for (auto _ : state) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        target.told().longestGap = 0;
        const auto begin = steady_clock::now();
        if (looker) {
            looker->look({target.runningThread()});
        }
        while (steady_clock::now() < begin + std::chrono::microseconds(100)) {
        }
        if (const std::uint64_t gap = target.told().longestGap; gap != 0) {
            gaps.push_back(gap);  // else it got no processor at all
        }
    }
    if (gaps.empty()) {
        state.SkipWithError("the thread got no processor");
        return;
    }
    state.counters["median_ns"] = static_cast<double>(quantile(gaps, 0.5));
    state.counters["p99_ns"] = static_cast<double>(quantile(gaps, 0.99));
    state.counters["longest_ns"] = static_cast<double>(quantile(gaps, 1));
}

/// How far the running thread gets in a tenth of a second, in which `look` is called each
/// millisecond.
double speed(const Target& target, const std::function<void()>& look) {
    const std::uint64_t before = target.told().progress;
    const auto begin = steady_clock::now();
    for (int i = 1; i <= 100; ++i) {
        std::this_thread::sleep_until(begin + std::chrono::milliseconds(i));
        look();
    }
    const std::chrono::duration<double> time = steady_clock::now() - begin;
    return static_cast<double>(target.told().progress - before) / time.count();
}

// With looks and with a thread that only wakes up as often, turn by turn; the median of the ratios.
void lossOfASampledThread(benchmark::State& state, Make make) {
    const Target target(0, 1);
    const auto looker = make(target.id());
    looker->look(target.threads());
    std::vector<std::uint64_t> losses;  // in millionths, plus one million
    for (auto _ : state) {
        const double alone = speed(target, [] {});
        const double sampled = speed(target, [&] { looker->look({target.runningThread()}); });
        losses.push_back(static_cast<std::uint64_t>((2 - sampled / alone) * 1e6));
    }
    state.counters["lost_%"] = (static_cast<double>(quantile(losses, 0.5)) / 1e6 - 1) * 100;
}

void add(const std::string& name, Make make) {
    using benchmark::RegisterBenchmark;
    for (const bool wakes : {false, true}) {
        RegisterBenchmark(((wakes ? "AllStacksAnew/" : "AllStacks/") + name).c_str(), allStacks,
                          make, wakes)
            ->Arg(50)
            ->Arg(1000)
            ->Iterations(20)
            ->UseManualTime()
            ->Unit(benchmark::kMicrosecond);
    }
    RegisterBenchmark(("StopOfARunningThread/" + name).c_str(), stopOfARunningThread, make)
        ->Iterations(2000);
    RegisterBenchmark(("LossOfASampledThread/" + name).c_str(), lossOfASampledThread, make)
        ->Iterations(20)
        ->Unit(benchmark::kMillisecond);
}

int stand(int blocked, int running) {
    const Target target(blocked, running);
    std::cout << target.id() << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
        std::cout << target.told().longestGap.exchange(0) << std::endl;
    }
    return 0;
}

}  // namespace

int main(int count, char** arguments) {
    if (count == 4 && std::string(arguments[1]) == "--stand") {
        return stand(std::atoi(arguments[2]), std::atoi(arguments[3]));
    }
    benchmark::RegisterBenchmark("StopOfARunningThread/none", stopOfARunningThread, nullptr)
        ->Iterations(2000);
    add("ours", makeOurs);
#ifdef HAVE_LIBDW
    add("libdw", makeLibdw);
#endif
#ifdef HAVE_LIBUNWIND
    add("libunwind", makeLibunwind);
#endif
    benchmark::Initialize(&count, arguments);
    benchmark::RunSpecifiedBenchmarks();
}
