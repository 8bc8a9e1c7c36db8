#pragma once

// Visiting a thread that is blocked in the kernel, without touching it.

#include "platform/thread_context.h"

namespace ThreadUtilities::platform {

enum class BlockedVisit {
    Visited,
    NotPossible,  ///< runs, ran meanwhile, needs more registers, or cannot be looked at this way
};

/// As `visitThreadContext`. The visitor runs on the calling thread and knows instruction and stack
/// pointer only. With `mustStand` the visited thread is proven not to have run meanwhile.
BlockedVisit visitBlockedThread(unsigned int threadId, bool mustStand, ContextVisitor visitor,
                                void* state) noexcept;

}  // namespace ThreadUtilities::platform
