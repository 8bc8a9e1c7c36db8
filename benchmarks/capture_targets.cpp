// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "capture_targets.h"

#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>
#include <x86intrin.h>

#include <chrono>

#include "deep_stack.h"

namespace capture_targets {
namespace {

std::atomic<std::uint64_t> handlerCalls{0};

void onBareSignal(int) {
    handlerCalls.fetch_add(1, std::memory_order_release);
}

}  // namespace

void stayOnProcessor(unsigned int processor) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor % std::thread::hardware_concurrency(), &set);
    pthread_setaffinity_np(pthread_self(), sizeof(set), &set);
}

double nanosecondsPerStamp() {
    static const double ratio = [] {
        using Clock = std::chrono::steady_clock;
        const auto start = Clock::now();
        const auto stamp = __rdtsc();
        while (Clock::now() - start < std::chrono::milliseconds(50)) {
        }
        const std::chrono::duration<double, std::nano> passed = Clock::now() - start;
        return passed.count() / static_cast<double>(__rdtsc() - stamp);
    }();
    return ratio;
}

Target::Target(Work work)
    : work_(work), thread_([this] {
          stayOnProcessor(1);
          deep_stack::callWithoutFramePointers(
              depth, [](void* self) { static_cast<Target*>(self)->work(); }, this);
      }) {
    while (id_ == 0) {
        std::this_thread::yield();
    }
}

Target::~Target() {
    stop_ = true;
    BareSignal(SIGUSR1).send(handle());
    thread_.join();
}

void Target::work() {
    id_ = static_cast<unsigned int>(gettid());
    switch (work_) {
        case Work::Spin:
            while (!stop_.load(std::memory_order_relaxed)) {
            }
            break;
        case Work::Block:
            while (!stop_) {
                poll(nullptr, 0, 1000);
            }
            break;
        case Work::MeasureGaps:
            measureGaps();
            break;
    }
}

void Target::measureGaps() {
    constexpr double shortestGap = 100;
    const double scale = nanosecondsPerStamp();
    std::vector<double> gaps;
    gaps.reserve(1 << 16);
    std::uint64_t last = __rdtsc();
    while (!stop_.load(std::memory_order_relaxed)) {
        const std::uint64_t now = __rdtsc();
        const double gap = static_cast<double>(now - last) * scale;
        last = now;
        if (gap > shortestGap && gaps.size() < gaps.capacity()) {
            gaps.push_back(gap);
        }
        if (handOver_.load(std::memory_order_acquire)) {
            gaps_.swap(gaps);
            gaps.clear();
            gaps.reserve(1 << 16);
            handOver_.store(false, std::memory_order_release);
            last = __rdtsc();
        }
    }
}

std::vector<double> Target::takeGaps() {
    handOver_.store(true, std::memory_order_release);
    while (handOver_.load(std::memory_order_acquire)) {
    }
    return gaps_;
}

BareSignal::BareSignal(int number) : number_(number) {
    struct sigaction action{};
    action.sa_handler = onBareSignal;
    action.sa_flags = SA_RESTART | SA_ONSTACK;
    sigaction(number, &action, nullptr);
}

std::uint64_t BareSignal::handled() {
    return handlerCalls.load(std::memory_order_acquire);
}

void BareSignal::roundTrip(pthread_t thread) {
    const std::uint64_t before = handlerCalls.load(std::memory_order_acquire);
    send(thread);
    while (handlerCalls.load(std::memory_order_acquire) == before) {
    }
}

}  // namespace capture_targets
