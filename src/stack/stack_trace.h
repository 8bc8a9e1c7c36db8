// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <chrono>
#include <cstddef>
#include <span>

#include "platform/thread_context.h"

namespace ThreadUtilities {

/// How long a thread's answer is waited for: far more than a busy machine needs to let it answer,
/// and little to somebody who waits.
inline constexpr std::chrono::seconds longestCapture{1};

/// What `getStackTrace` does for a thread that is not the calling one, after it has checked its
/// arguments: visits it as asked, with a visitor that walks its stack.
platform::Visit captureOtherThread(const platform::VisitRequest& asked,
                                   std::span<unsigned long long> frames);

/// Captures of many threads, one after the other, by one caller, as a report makes them. The
/// results are those of `getStackTrace`, but whether a debugger is attached is asked once a
/// millisecond.
class CaptureSeries {
 public:
    /// An answer that is younger than `answerLasts` will do.
    bool isDebuggerAttached(
        std::chrono::milliseconds answerLasts = std::chrono::milliseconds(1)) noexcept;

    /// Of a thread that is not the calling one.
    platform::Visit capture(platform::VisitRequest request, std::span<unsigned long long> frames);

    /// Of any thread, with as long a wait as there is; returns the number of frames.
    std::size_t capture(unsigned int threadId, std::span<unsigned long long> frames);

 private:
    std::chrono::steady_clock::time_point debuggerAskedAt;
    bool debuggerIsKnown = false;
    bool debuggerAttached = false;
    bool foundOneAtRest = false;
};

}  // namespace ThreadUtilities
