// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// A storm: threads that do something awkward for as long as it lasts, while other threads capture
// them and each other without a pause.

#include <ThreadUtilities/StackTrace.h>
#include <execinfo.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace storm {

/// A thread under capture. Its body works until `stop` is set.
class Target {
 public:
    /// Notes who called the calling function, whose return address is `firstCaller`: those behind
    /// that function's frame, which goes on, and a sanitizer's wrapper of `backtrace`.
    void noteCallers(const void* firstCaller) {
        void** const begin = callers.data();
        void** const end = begin + backtrace(begin, static_cast<int>(callers.size()));
        void** const first = std::find(begin, end, firstCaller);
        callerCount = static_cast<int>(std::copy(first, end, begin) - begin);
    }
    [[nodiscard]] bool mustGoOn() const { return !stop.load(std::memory_order_relaxed); }

    std::atomic<unsigned int> threadId{0};
    std::atomic<bool> stop{false};
    /// The outermost callers, innermost first: every whole capture ends with them.
    std::array<void*, 16> callers{};
    int callerCount = 0;
};

struct Storm {
    std::string name;
    /// Each runs in a thread of its own.
    std::vector<void (*)(Target&)> bodies;
    /// Whether every capture finds the thread and its outermost callers. Not so where a thread
    /// blocks the signal, ends, leaves its stack, or passes through code that no table describes.
    bool isWhole = true;
};

struct Outcome {
    unsigned long long captures = 0;
    unsigned long long empty = 0;       ///< without a frame, though not for want of patience
    unsigned long long givenUp = 0;     ///< without a frame, after waiting for the thread
    unsigned long long incomplete = 0;  ///< without the outermost callers
    unsigned long long overruns = 0;    ///< wrote behind the frames that they reported
};

using Clock = std::chrono::steady_clock;

constexpr unsigned long long untouched = 0xDEADDEADDEADDEAD;

inline std::atomic<unsigned long long> progress{0};
inline std::atomic<const char*> current{"start"};

[[gnu::noinline]] inline void runBody(Target& target, void (*body)(Target&)) {
    target.noteCallers(__builtin_return_address(0));
    target.threadId = static_cast<unsigned int>(gettid());
    body(target);
    target.threadId = 0;
    asm volatile("");
}

class Capturer {
 public:
    void capture(const Target& target) {
        const unsigned int id = target.threadId;
        if (id == 0 || id == static_cast<unsigned int>(gettid())) {
            return;
        }
        frames_.fill(untouched);
        const bool suspend = (outcome_.captures & 7) != 7;
        const auto begin = std::chrono::steady_clock::now();
        const auto count = static_cast<std::size_t>(
            ThreadUtilities::getStackTrace(id, frames_.data(), frames_.size(), suspend));
        const bool wasGivenUp = std::chrono::steady_clock::now() - begin >= patience;
        if (!suspend) {
            ++outcome_.captures;  // what it finds is its own business
        } else if (target.threadId == id) {
            judge(target, count, wasGivenUp);
        }
        ++progress;
    }
    [[nodiscard]] const Outcome& outcome() const { return outcome_; }

 private:
    /// From here on an empty answer may mean that the thread got no processor, or waited for a page
    /// or a lock of the kernel, until its capture was given up: a busy machine's, no fault. As long
    /// as a capture waits for the most hopeless of threads.
    static constexpr std::chrono::milliseconds patience{3};

    void judge(const Target& target, std::size_t count, bool wasGivenUp) {
        ++outcome_.captures;
        (wasGivenUp ? outcome_.givenUp : outcome_.empty) += count == 0 ? 1 : 0;
        outcome_.incomplete += count != 0 && !endsWithCallers(target, count) ? 1 : 0;
        const auto behind =
            frames_.begin() + static_cast<std::ptrdiff_t>(std::max<std::size_t>(count, 1));
        outcome_.overruns +=
            std::all_of(behind, frames_.end(), [](auto frame) { return frame == untouched; }) ? 0
                                                                                              : 1;
    }

    [[nodiscard]] bool endsWithCallers(const Target& target, std::size_t count) const {
        const auto callers = static_cast<std::size_t>(target.callerCount);
        if (callers == 0 || count < callers) {
            return false;
        }
        for (std::size_t i = 0; i < callers; ++i) {
            const auto expected = reinterpret_cast<unsigned long long>(target.callers[i]);
            if (frames_[count - callers + i] != expected) {
                return false;
            }
        }
        return true;
    }

    std::array<unsigned long long, 200> frames_{};
    Outcome outcome_;
};

inline void add(Outcome& sum, const Outcome& part) {
    sum.captures += part.captures;
    sum.empty += part.empty;
    sum.givenUp += part.givenUp;
    sum.incomplete += part.incomplete;
    sum.overruns += part.overruns;
}

/// Ends the process, with a word on the storm, when nothing is captured for a minute.
[[nodiscard]] inline std::jthread watchProgress() {
    return std::jthread([](const std::stop_token& stop) {
        constexpr auto patience = std::chrono::seconds(60);
        unsigned long long seen = progress;
        auto since = Clock::now();
        while (!stop.stop_requested()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            if (const unsigned long long now = progress; now != seen) {
                seen = now;
                since = Clock::now();
            } else if (Clock::now() - since > patience) {
                std::fprintf(stderr, "storm: nothing moves in \"%s\"\n", current.load());
                std::abort();
            }
        }
    });
}

// The capturers are targets as well: they capture each other while they capture the rest.
inline Outcome run(const Storm& storm, std::chrono::milliseconds duration, std::string& reports) {
    constexpr std::size_t capturerCount = 2;
    current = storm.name.c_str();
    std::vector<std::unique_ptr<Target>> targets;
    std::vector<std::thread> threads;
    for (void (*body)(Target&) : storm.bodies) {
        targets.push_back(std::make_unique<Target>());
        threads.emplace_back(runBody, std::ref(*targets.back()), body);
    }
    std::array<Capturer, capturerCount> capturers;
    std::array<Target, capturerCount> asTargets;
    const auto end = Clock::now() + duration;
    std::array<std::thread, capturerCount> capturing;
    for (std::size_t me = 0; me < capturerCount; ++me) {
        capturing[me] = std::thread([&, me] {
            asTargets[me].noteCallers(__builtin_return_address(0));
            asTargets[me].threadId = static_cast<unsigned int>(gettid());
            // On a machine that is busy with other things the time may be over before the first
            // one.
            while (Clock::now() < end || capturers[me].outcome().captures == 0) {
                for (const auto& target : targets) {
                    capturers[me].capture(*target);
                }
                for (const Target& other : asTargets) {
                    capturers[me].capture(other);
                }
            }
            asTargets[me].threadId = 0;
        });
    }
    reports += ThreadUtilities::getAllThreadStackTrace({}).first;
    Outcome outcome;
    for (std::size_t me = 0; me < capturerCount; ++me) {
        capturing[me].join();
        add(outcome, capturers[me].outcome());
    }
    for (const auto& target : targets) {
        target->stop = true;
    }
    for (std::thread& thread : threads) {
        thread.join();
        ++progress;
    }
    return outcome;
}

}  // namespace storm
