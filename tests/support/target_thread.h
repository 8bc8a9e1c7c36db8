// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Threads to be captured, and what tests wait with.

#include <ThreadUtilities/StackTrace.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

namespace ThreadUtilities {

/// Waits until `condition` holds; false when that takes so long that something hangs.
template <typename Condition>
bool eventually(Condition condition) {
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > giveUp) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

/// A thread that runs `body` until the object ends; `body` gets the flag that tells it to return.
class TargetThread {
 public:
    using Body = std::function<void(const std::atomic<bool>& stop)>;

    explicit TargetThread(Body body)
        : thread_([this, work = std::move(body)] {
              id_ = static_cast<unsigned int>(gettid());
              work(stop_);
          }) {
        eventually([this] { return id_ != 0; });
    }
    ~TargetThread() { join(); }
    TargetThread(const TargetThread&) = delete;
    TargetThread& operator=(const TargetThread&) = delete;

    void join() {
        stop_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    [[nodiscard]] unsigned int id() const { return id_; }
    pthread_t handle() { return thread_.native_handle(); }

 private:
    std::atomic<unsigned int> id_{0};
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

/// What the kernel says of a thread.
struct KernelView {
    bool sleeps = false;
    unsigned long switches = 0;  ///< how often it left a processor
};

inline KernelView kernelViewOf(unsigned int threadId) {
    std::ifstream status("/proc/self/task/" + std::to_string(threadId) + "/status");
    KernelView view;
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("State:")) {
            view.sleeps = line.find('S', 6) != std::string::npos;
        } else if (line.find("ctxt_switches:") != std::string::npos) {
            view.switches += std::stoul(line.substr(line.find(':') + 1));
        }
    }
    return view;
}

inline bool isCaptured(unsigned int threadId) {
    unsigned long long frames[128];
    return getStackTrace(threadId, frames, 128, true) > 1;
}

inline void blockUntil(const std::atomic<bool>& stop) {
    while (!stop) {
        poll(nullptr, 0, 10);
    }
}

inline void spinUntil(const std::atomic<bool>& stop) {
    while (!stop) {
    }
}

}  // namespace ThreadUtilities
