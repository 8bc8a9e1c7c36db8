// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Visiting a thread by a signal: the visitor runs in the handler, on the visited thread.

#include <span>

#include "linux/capture/capture_requests.h"
#include "linux/capture/thread_status.h"
#include "platform/thread_context.h"

namespace ThreadUtilities::platform {

enum class Waiting {
    SpinFirst,  ///< the thread runs on another processor and will answer at once
    Sleep,      ///< it needs a processor first, maybe this one
};

/// As `visitThreadContext`, for a thread that runs or that no cheaper way can reach. `status` is
/// what has just been read of the thread. Where the thread does not answer, the frames that `slot`
/// has kept are the answer. The slot may be left to the thread's handler.
Visit visitBySignal(const VisitRequest& request, const ThreadStatus& status, Waiting waiting,
                    VisitSlot& slot, std::span<unsigned long long> frames) noexcept;

}  // namespace ThreadUtilities::platform
