#pragma once

// Visiting a thread by a signal: the visitor runs in the handler, on the visited thread.

#include "platform/thread_context.h"

namespace ThreadUtilities::platform {

enum class Waiting {
    SpinFirst,  ///< the thread runs on another processor and will answer at once
    Sleep,      ///< it needs a processor first, maybe this one
};

/// As `visitThreadContext`, for a thread that runs or that no cheaper way can reach.
VisitResult visitBySignal(unsigned int threadId, bool suspend, Waiting waiting,
                          ContextVisitor visitor, void* state) noexcept;

}  // namespace ThreadUtilities::platform
