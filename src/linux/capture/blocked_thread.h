// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Visiting a thread that is blocked in the kernel, without touching it.

#include <optional>

#include "linux/capture/capture_requests.h"
#include "platform/run_witness.h"
#include "platform/thread_context.h"

namespace ThreadUtilities::platform {

enum class BlockedVisit {
    Visited,
    RanMeanwhile,
    NotPossible,     ///< runs, needs more registers, or cannot be looked at this way
    AwaitsItsStack,  ///< which a pager is to provide: nothing to read, and no room for a signal
};

/// As `visitThreadContext`; what the visitor found is in `slot`, with `NotPossible` as far as it
/// came. The visitor runs on the calling thread and knows instruction and stack pointer, and a
/// system call's arguments where it needs them. With `request.suspend` the visited thread is proven
/// not to have run meanwhile, and `atRest` is set, as `Visit` has it.
BlockedVisit visitBlockedThread(const VisitRequest& request, VisitSlot& slot,
                                std::optional<ThreadRuns>& atRest) noexcept;

}  // namespace ThreadUtilities::platform
