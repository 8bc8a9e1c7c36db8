#pragma once

// Visiting a thread by a signal: the visitor runs in the handler, on the visited thread.

#include "platform/thread_context.h"

namespace ThreadUtilities::platform {

/// As `visitThreadContext`, for a thread that runs or that no cheaper way can reach.
VisitResult visitBySignal(unsigned int threadId, bool suspend, ContextVisitor visitor,
                          void* state) noexcept;

}  // namespace ThreadUtilities::platform
