// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Threads to be captured, 30 frames deep.

#include <atomic>
#include <csignal>
#include <cstdint>
#include <thread>
#include <vector>

namespace capture_targets {

inline constexpr int depth = 30;

/// Keeps the calling thread on one processor, so that capturer and target never share one.
void stayOnProcessor(unsigned int processor);

/// Processor time stamps, in nanoseconds.
double nanosecondsPerStamp();

class Target {
 public:
    enum class Work {
        Spin,         ///< runs all the time
        Block,        ///< waits in the kernel
        MeasureGaps,  ///< runs all the time and notes when it did not
    };
    explicit Target(Work work);
    ~Target();
    Target(const Target&) = delete;
    Target& operator=(const Target&) = delete;

    [[nodiscard]] unsigned int id() const { return id_; }
    pthread_t handle() { return thread_.native_handle(); }

    /// The lengths of all gaps since the last call, in nanoseconds. Waits for the target to hand
    /// them over.
    std::vector<double> takeGaps();

 private:
    void work();
    void measureGaps();

    Work work_;
    std::atomic<unsigned int> id_{0};
    std::atomic<bool> stop_{false};
    std::atomic<bool> handOver_{false};
    std::vector<double> gaps_;
    std::thread thread_;
};

/// A handler that only says that it was there, the least that a signal can cost.
class BareSignal {
 public:
    explicit BareSignal(int number);
    /// Sends the signal and waits for its handler.
    void roundTrip(pthread_t thread);
    void send(pthread_t thread) const { pthread_kill(thread, number_); }
    /// Calls of the handler so far, whatever the signal.
    static std::uint64_t handled();

 private:
    int number_;
};

}  // namespace capture_targets
