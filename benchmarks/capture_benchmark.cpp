// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Capturing another thread, 30 frames deep, and what it costs that thread. Peers are measured in
// the same loop, turn by turn, so that both meet the same machine; the figures are medians.

#include <ThreadUtilities/StackTrace.h>
#include <benchmark/benchmark.h>
#include <ucontext.h>
#include <unistd.h>
#include <x86intrin.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "capture_targets.h"
#include "deep_stack.h"
#include "linux/capture/blocked_thread.h"
#include "linux/capture/capture_requests.h"
#include "linux/capture/capture_signal.h"
#include "linux/capture/handler/capture_handler.h"
#include "linux/capture/thread_stacks.h"
#include "platform/debugger.h"
#include "platform/thread_context.h"
#include "stack/capture_session.h"
#include "stack/handler/capture_visitor.h"
#include "stack/stack_trace.h"
#include "unwind/frame_walk.h"

#if defined(HAVE_GPERFTOOLS)
#include <gperftools/profiler.h>
#endif

namespace {

using capture_targets::BareSignal;
using capture_targets::Target;
using namespace ThreadUtilities;

constexpr std::size_t room = 256;

double median(std::vector<double>& values) {
    if (values.empty()) {
        return 0;
    }
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

// Times of two ways to do something, taken turn by turn.
class Duel {
 public:
    template <typename Ours, typename Peer>
    void turn(Ours ours, Peer peer) {
        ours_.push_back(timed(ours));
        peer_.push_back(timed(peer));
    }
    void report(benchmark::State& state) {
        const double ours = median(ours_);
        const double peer = median(peer_);
        state.counters["ours_ns"] = ours;
        state.counters["peer_ns"] = peer;
        state.counters["ratio"] = ours / peer;
    }

 private:
    template <typename Work>
    static double timed(Work work) {
        const auto begin = __rdtsc();
        work();
        return static_cast<double>(__rdtsc() - begin) * capture_targets::nanosecondsPerStamp();
    }
    std::vector<double> ours_;
    std::vector<double> peer_;
};

std::size_t visitAndWalk(unsigned int threadId, unsigned long long* frames) {
    platform::VisitRequest request;
    request.threadId = threadId;
    request.deadline = std::chrono::steady_clock::now() + longestCapture;
    return captureOtherThread(request, {frames, room}).frameCount;
}

struct HandlerRuns {
    benchmark::State& state;
    std::vector<double> times;
};

/// With a context below the stack pointer that it tells of, as the kernel puts it.
[[gnu::noinline]] void measureHandler(HandlerRuns& runs, const ucontext_t& interrupted) {
    ucontext_t here = interrupted;
    const auto self = static_cast<unsigned int>(gettid());
    platform::ReadableRange stack;
    platform::findThreadStack(self, stack);
    const int number = platform::captureSignal();
    siginfo_t info = platform::captureSignalInfo(number, self);
    platform::VisitSlot slot(room, std::chrono::steady_clock::now());
    const double nanosecondsPerStamp = capture_targets::nanosecondsPerStamp();
    for (auto _ : runs.state) {
        const platform::PostedRequest request(slot, {self, collectFrames, stack, true});
        const auto begin = __rdtsc();
        platform::onCaptureSignal(number, &info, &here);
        runs.times.push_back(static_cast<double>(__rdtsc() - begin) * nanosecondsPerStamp);
    }
    runs.state.counters["frames"] = static_cast<double>(slot.room().frameCount);
}

/// Our handler's whole work on the thread, called like a function; what the kernel adds is the
/// bare signal's cost.
void TimeInTheHandler(benchmark::State& state) {
    HandlerRuns runs{state, {}};
    prepareFrameWalks();
    platform::rememberOwnStack();
    deep_stack::callWithoutFramePointers(
        capture_targets::depth,
        [](void* opaque) {
            ucontext_t here;
            getcontext(&here);
            measureHandler(*static_cast<HandlerRuns*>(opaque), here);
        },
        &runs);
    state.counters["median_ns"] = median(runs.times);
}
BENCHMARK(TimeInTheHandler);

void RunningThreadAgainstBareSignal(benchmark::State& state) {
    capture_targets::stayOnProcessor(0);
    Target target(Target::Work::Spin);
    BareSignal bare(SIGUSR1);
    std::array<unsigned long long, room> frames;
    Duel duel;
    for (auto _ : state) {
        duel.turn([&] { visitAndWalk(target.id(), frames.data()); },
                  [&] { bare.roundTrip(target.handle()); });
    }
    duel.report(state);
}
BENCHMARK(RunningThreadAgainstBareSignal)->Unit(benchmark::kMicrosecond);

// After a signal the target needs a processor before it is back in its wait.
void waitUntilBlocked(unsigned int threadId) {
    const auto look = [](const platform::ThreadContext&, platform::VisitRoom&) noexcept {
        return platform::VisitorAnswer::Enough;
    };
    const auto deadline = std::chrono::steady_clock::time_point::max();
    const platform::VisitRequest request{threadId, true, look, deadline};
    platform::VisitSlot slot(room, deadline);
    std::optional<platform::ThreadRuns> atRest;
    while (platform::visitBlockedThread(request, slot, atRest) != platform::BlockedVisit::Visited) {
        usleep(100);
    }
}

void BlockedThreadAgainstBareSignal(benchmark::State& state) {
    capture_targets::stayOnProcessor(0);
    Target target(Target::Work::Block);
    waitUntilBlocked(target.id());
    BareSignal bare(SIGUSR1);
    std::array<unsigned long long, room> frames;
    Duel duel;
    for (auto _ : state) {
        duel.turn([&] { visitAndWalk(target.id(), frames.data()); },
                  [&] { bare.roundTrip(target.handle()); });
        waitUntilBlocked(target.id());
    }
    duel.report(state);
}
BENCHMARK(BlockedThreadAgainstBareSignal)->Unit(benchmark::kMicrosecond);

/// The same capture once after the other.
void BlockedThreadInARow(benchmark::State& state) {
    capture_targets::stayOnProcessor(0);
    Target target(Target::Work::Block);
    waitUntilBlocked(target.id());
    std::array<unsigned long long, room> frames;
    for (auto _ : state) {
        benchmark::DoNotOptimize(visitAndWalk(target.id(), frames.data()));
    }
}
BENCHMARK(BlockedThreadInARow);

/// As a report captures one thread after the other.
void BlockedThreadInASeries(benchmark::State& state) {
    capture_targets::stayOnProcessor(0);
    Target target(Target::Work::Block);
    waitUntilBlocked(target.id());
    std::array<unsigned long long, room> frames;
    CaptureSeries series;
    for (auto _ : state) {
        benchmark::DoNotOptimize(series.capture(target.id(), frames));
    }
}
BENCHMARK(BlockedThreadInASeries);

void DebuggerTest(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(platform::isDebuggerAttached());
    }
}
BENCHMARK(DebuggerTest);

void BlockedThreadInASession(benchmark::State& state) {
    Target target(Target::Work::Block);
    CaptureSession session(room, std::chrono::steady_clock::time_point::max(),
                           platform::RunWitness::mostFiles);
    for (auto _ : state) {
        benchmark::DoNotOptimize(session.capture(target.id()));
    }
}
BENCHMARK(BlockedThreadInASession);

// What a thread that computes all the time loses to something done to it 1,000 times a second.
// Gaps longer than any sample takes are somebody else's.
class Loss {
 public:
    explicit Loss(Target& target) : target_(target) {}

    template <typename Sample>
    double during(Sample sample) {
        constexpr double longestOfOurs = 300'000;
        target_.takeGaps();
        auto due = std::chrono::steady_clock::now();
        for (int i = 0; i < 500; ++i) {
            due += std::chrono::milliseconds(1);
            std::this_thread::sleep_until(due);
            sample();
        }
        double sum = 0;
        for (const double gap : target_.takeGaps()) {
            sum += gap < longestOfOurs ? gap : 0;
        }
        return sum;
    }

 private:
    Target& target_;
};

// The loss per sample that was really taken: signals that meet a pending one are dropped.
struct LossPerSample {
    std::vector<double> losses;
    double taken = 0;

    void add(double loss, double samples) {
        taken += samples;
        if (samples > 0) {
            losses.push_back(loss / samples);
        }
    }
    void report(benchmark::State& state, const std::string& name) {
        state.counters[name + "_ns"] = median(losses);
        state.counters[name + "_taken"] = taken;
    }
};

void LossOfASampledThread(benchmark::State& state) {
    capture_targets::stayOnProcessor(0);
    Target target(Target::Work::MeasureGaps);
    Loss loss(target);
    BareSignal bare(SIGUSR1);
    std::array<unsigned long long, room> frames;
    LossPerSample ours;
    LossPerSample bareSignal;
    LossPerSample profiler;
    for (auto _ : state) {
        const double idle = loss.during([] {});
        const auto handledBefore = BareSignal::handled();
        const double toSignals = loss.during([&] { bare.send(target.handle()); });
        bareSignal.add(toSignals - idle,
                       static_cast<double>(BareSignal::handled() - handledBefore));
        unsigned int taken = 0;
        const double toUs =
            loss.during([&] { taken += visitAndWalk(target.id(), frames.data()) != 0 ? 1 : 0; });
        ours.add(toUs - idle, taken);
#if defined(HAVE_GPERFTOOLS)
        // Its own timer is bound to the kernel's ticks, often 250 a second. Its handler is called
        // here as often as ours.
        ProfilerStart("/dev/null");
        const double toProfiler = loss.during([&] { pthread_kill(target.handle(), SIGPROF); });
        ProfilerState profilerState{};
        ProfilerGetCurrentState(&profilerState);
        profiler.add(toProfiler - idle, profilerState.samples_gathered);
        ProfilerStop();
#endif
    }
    ours.report(state, "ours");
    bareSignal.report(state, "bare");
    profiler.report(state, "gperftools");
    state.counters["ratio"] = median(ours.losses) / median(bareSignal.losses);
}
BENCHMARK(LossOfASampledThread)->Iterations(10)->Unit(benchmark::kSecond);

}  // namespace
