// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// What it costs to look at all threads of a process, most of which wait, as usual: a report, and
// sampling runs.

#include <ThreadUtilities/Sampling.h>
#include <ThreadUtilities/StackTrace.h>
#include <ThreadUtilities/Threads.h>
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <latch>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

/// So many threads beside the caller's, each of which has begun to wait.
class Waiters {
 public:
    explicit Waiters(std::int64_t size) {
        std::latch begun(size);
        for (std::int64_t count = 0; count < size; ++count) {
            threads_.emplace_back([&, this] {
                ids_[static_cast<std::size_t>(nextId_++)] = static_cast<int>(gettid());
                begun.count_down();
                leave_.wait();
            });
        }
        begun.wait();
        std::this_thread::sleep_for(50ms);  // to their wait
    }
    ~Waiters() {
        leave_.count_down();
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }

    /// How often they have got a processor.
    [[nodiscard]] std::uint64_t runs() const {
        std::uint64_t sum = 0;
        for (int i = 0; i < nextId_; ++i) {
            std::ifstream file("/proc/self/task/" +
                               std::to_string(ids_[static_cast<std::size_t>(i)]) + "/schedstat");
            std::uint64_t time = 0;
            std::uint64_t wait = 0;
            std::uint64_t count = 0;
            file >> time >> wait >> count;
            sum += count;
        }
        return sum;
    }

 private:
    std::latch leave_{1};
    std::atomic<int> nextId_ = 0;
    std::vector<int> ids_ = std::vector<int>(2000);
    std::vector<std::thread> threads_;
};

double processorSeconds() {
    rusage used{};
    getrusage(RUSAGE_SELF, &used);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(used.ru_utime) + seconds(used.ru_stime);
}

void ReportOfBlockedThreads(benchmark::State& state) {
    const Waiters waiters(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(ThreadUtilities::getAllThreadStackTrace({}));
    }
    state.counters["per_thread"] = benchmark::Counter(
        static_cast<double>(state.range(0)),
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(ReportOfBlockedThreads)->Arg(100)->Arg(1000)->Unit(benchmark::kMicrosecond);

std::uint64_t numberAfter(const std::string& report, const std::string& name) {
    return std::strtoull(report.c_str() + report.find(name) + name.size(), nullptr, 10);
}

/// What a run takes of one processor, and how many samples it takes of those that are due.
void SamplingOfSleepers(benchmark::State& state) {
    constexpr auto duration = 4s;
    const Waiters waiters(50);
    const std::chrono::milliseconds interval(state.range(0));
    double used = 0;
    double wall = 0;
    double taken = 0;
    double due = 0;
    std::uint64_t runs = 0;
    for (auto _ : state) {
        const std::uint64_t runsBefore = waiters.runs();
        const double usedBefore = processorSeconds();
        const auto begin = std::chrono::steady_clock::now();
        const std::string report = ThreadUtilities::sampleAllThreads(duration, interval);
        const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - begin;
        used += processorSeconds() - usedBefore;
        wall += passed.count();
        runs += waiters.runs() - runsBefore;
        taken += static_cast<double>(numberAfter(report, "Total sample count: "));
        due += 51.0 * static_cast<double>(std::chrono::milliseconds(duration) / interval);
    }
    state.counters["processor_%"] = 100 * used / wall;
    state.counters["taken_%"] = 100 * taken / due;
    state.counters["their_runs"] = static_cast<double>(runs);
}
BENCHMARK(SamplingOfSleepers)
    ->ArgName("ms")
    ->Arg(1)
    ->Arg(10)
    ->Arg(500)
    ->Iterations(1)
    ->Unit(benchmark::kSecond);

/// A thread that waits and works by turns, and keeps a record of both.
class Alternating {
 public:
    using Clock = std::chrono::steady_clock;

    /// Works for about `work` after each wait of about `wait`.
    Alternating(Clock::duration wait, Clock::duration work)
        : thread_([this, wait, work] { run(wait, work); }) {}
    ~Alternating() {
        stop_ = true;
        thread_.join();
    }

    /// The part of the time until now, in which it waited, of that since `reset`.
    [[nodiscard]] double truth() const {
        return static_cast<double>(waited_) / static_cast<double>(waited_ + worked_);
    }
    void reset() {
        waited_ = 0;
        worked_ = 0;
    }
    /// The part of its samples in which a report of a run shows it waiting.
    [[nodiscard]] double seen(const std::string& report) const {
        const std::wstring wide = ThreadUtilities::getFrameDetails(
            static_cast<unsigned int>(getpid()), static_cast<unsigned long long>(inWait_));
        const std::string frame(wide.begin(), wide.end());
        const std::size_t block = report.find("Thread " + std::to_string(id_) + " [");
        const std::size_t end = std::min(report.find("\nThread ", block), report.size());
        double samples = 0;
        for (std::size_t at = report.find(frame, block); at < end;
             at = report.find(frame, at + 1)) {
            samples += countAt(report, report.rfind('[', at));
        }
        return samples / countAt(report, report.find('[', block));
    }

 private:
    static double countAt(const std::string& report, std::size_t bracket) {
        return std::strtod(report.c_str() + bracket + 1, nullptr);
    }

    [[gnu::noinline]] void wait(Clock::duration time) {
        inWait_ = reinterpret_cast<std::uintptr_t>(__builtin_return_address(0));
        std::this_thread::sleep_for(time);
    }
    [[gnu::noinline]] static void work(Clock::duration time) {
        for (const auto end = Clock::now() + time; Clock::now() < end;) {
        }
    }
    void run(Clock::duration waiting, Clock::duration working) {
        id_ = gettid();
        auto begin = Clock::now();
        while (!stop_) {
            wait(waiting);
            const auto middle = Clock::now();
            waited_ += (middle - begin).count();
            work(working);
            begin = Clock::now();
            worked_ += (begin - middle).count();
        }
    }

    std::atomic<bool> stop_ = false;
    std::atomic<int> id_ = 0;
    std::atomic<std::uintptr_t> inWait_ = 0;
    std::atomic<Clock::rep> waited_ = 0;
    std::atomic<Clock::rep> worked_ = 0;
    std::thread thread_;
};

/// How far the share of a wait that a run shows is from the true one, while another thread keeps a
/// processor busy.
void ShareOfAWait(benchmark::State& state) {
    std::atomic<bool> stop = false;
    std::thread busy([&] {
        while (!stop) {
        }
    });
    Alternating target(4ms, 9ms);  // not in step with the samples
    std::this_thread::sleep_for(50ms);
    for (auto _ : state) {
        target.reset();
        const std::string report =
            ThreadUtilities::sampleAllThreads(8s, std::chrono::milliseconds(state.range(0)));
        state.counters["true_%"] = 100 * target.truth();
        state.counters["seen_%"] = 100 * target.seen(report);
    }
    stop = true;
    busy.join();
}
BENCHMARK(ShareOfAWait)->ArgName("ms")->Arg(1)->Arg(10)->Iterations(1)->Unit(benchmark::kSecond);

/// Nothing but waking up every millisecond: what any such sampler pays on this machine.
void WakingUp(benchmark::State& state) {
    for (auto _ : state) {
        const double before = processorSeconds();
        auto time = std::chrono::steady_clock::now();
        const auto end = time + 4s;
        while (time < end) {
            time += std::chrono::milliseconds(state.range(0));
            std::this_thread::sleep_until(time);
        }
        state.counters["processor_%"] = 100 * (processorSeconds() - before) / 4;
    }
}
BENCHMARK(WakingUp)->ArgName("ms")->Arg(1)->Arg(10)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
