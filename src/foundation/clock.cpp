// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/clock.h"

#include <chrono>
#include <thread>

namespace ThreadUtilities::platform {

std::chrono::steady_clock::time_point steadyNow() noexcept {
    return std::chrono::steady_clock::now();
}

unsigned int hardwareThreads() noexcept {
    return std::thread::hardware_concurrency();
}

}  // namespace ThreadUtilities::platform
