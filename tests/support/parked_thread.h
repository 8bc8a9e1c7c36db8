// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <unistd.h>

#include <functional>
#include <future>
#include <latch>
#include <thread>

namespace ThreadUtilities {

/// A thread that has run `begin` and then stands still until it is released.
class ParkedThread {
 public:
    explicit ParkedThread(std::function<void()> begin = [] {}) {
        std::promise<unsigned int> started;
        thread = std::thread([this, &started, begin = std::move(begin)] {
            begin();
            started.set_value(static_cast<unsigned int>(gettid()));
            released.wait();
        });
        threadId = started.get_future().get();
    }
    ~ParkedThread() { end(); }

    unsigned int id() const { return threadId; }
    pthread_t handle() { return thread.native_handle(); }

    /// Returns when the thread has been joined.
    void end() {
        if (thread.joinable()) {
            released.count_down();
            thread.join();
        }
    }

 private:
    std::latch released{1};
    unsigned int threadId = 0;
    std::thread thread;
};

}  // namespace ThreadUtilities
