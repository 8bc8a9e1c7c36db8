// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The process whose threads are looked at, and who looks.

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

/// In memory that the target shares with the benchmark.
struct Shared {
    std::atomic<int> ready{0};
    std::array<std::atomic<pid_t>, 1024> threads{};
    std::atomic<std::uint64_t> wakes{0};       ///< by blocked threads that were woken
    std::atomic<std::uint64_t> progress{0};    ///< of the first running thread
    std::atomic<std::uint64_t> longestGap{0};  ///< nanoseconds that it did not run at a stretch
};

/// A fork child with threads that are blocked in poll(2) twelve calls below their start, and
/// threads that run.
class Target {
 public:
    Target(int blocked, int running);
    ~Target();
    Target(const Target&) = delete;
    Target& operator=(const Target&) = delete;

    pid_t id() const { return child; }
    const std::vector<pid_t>& threads() const { return ids; }
    pid_t runningThread() const { return ids.back(); }
    Shared& told() const { return *shared; }
    /// Lets each blocked thread run once, and waits until all are blocked again.
    void wakeAll() const;

 private:
    Shared* shared;
    int blockedCount;
    int wakeUp;
    pid_t child;
    std::vector<pid_t> ids;
};

/// A library that looks at a process: each pass gives the number of frames of those threads.
class Looker {
 public:
    virtual ~Looker() = default;
    virtual std::size_t look(const std::vector<pid_t>& threads) = 0;
};

std::unique_ptr<Looker> makeLibdw(pid_t process);
std::unique_ptr<Looker> makeLibunwind(pid_t process);
