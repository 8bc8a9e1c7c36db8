// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "storm/storm.h"

#include <ThreadUtilities/StackTrace.h>
#include <execinfo.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>

namespace storm {
namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned long long untouched = 0xDEADDEADDEADDEAD;

std::atomic<unsigned long long> progress{0};
std::atomic<const char*> current{"start"};

[[gnu::noinline]] void runBody(Target& target, void (*body)(Target&)) {
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

void add(Outcome& sum, const Outcome& part) {
    sum.captures += part.captures;
    sum.empty += part.empty;
    sum.givenUp += part.givenUp;
    sum.incomplete += part.incomplete;
    sum.overruns += part.overruns;
}

}  // namespace

// Behind the caller's frame, which goes on, and a sanitizer's wrapper of `backtrace`.
void Target::noteCallers(const void* firstCaller) {
    void** const begin = callers.data();
    void** const end = begin + backtrace(begin, static_cast<int>(callers.size()));
    void** const first = std::find(begin, end, firstCaller);
    callerCount = static_cast<int>(std::copy(first, end, begin) - begin);
}

std::jthread watchProgress() {
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
Outcome run(const Storm& storm, std::chrono::milliseconds duration) {
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
