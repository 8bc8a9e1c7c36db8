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
/// arguments: visits it as asked, with a visitor that walks its stack.
platform::Visit captureOtherThread(const platform::VisitRequest& asked,
                                   std::span<unsigned long long> frames);

}  // namespace ThreadUtilities
