// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <chrono>
#include <span>

#include "platform/thread_context.h"

namespace ThreadUtilities {

/// How long a thread's answer is waited for: far more than a busy machine needs to let it answer,
/// and little to somebody who waits.
inline constexpr std::chrono::seconds longestCapture{1};

/// What `getStackTrace` does for a thread that is not the calling one, after it has checked its
/// arguments. A thread that has not answered by `deadline` is given up.
platform::Visit captureOtherThread(unsigned int threadId, std::span<unsigned long long> frames,
                                   bool suspend, std::chrono::steady_clock::time_point deadline);

}  // namespace ThreadUtilities
