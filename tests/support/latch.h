// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace ThreadUtilities::tests {

/// What `std::latch` is. The one of the cross compiler's C++ library (libstdc++ 12 for Windows)
/// loses wake-ups.
class Latch {
 public:
    explicit Latch(std::ptrdiff_t expected) : missing(expected) {}

    void arrive_and_wait() {
        std::unique_lock lock(mutex);
        if (--missing <= 0) {
            changed.notify_all();
        }
        changed.wait(lock, [this] { return missing <= 0; });
    }

 private:
    std::mutex mutex;
    std::condition_variable changed;
    std::ptrdiff_t missing;
};

}  // namespace ThreadUtilities::tests
