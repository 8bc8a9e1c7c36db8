#include "platform/thread_context.h"

#include "platform/linux/blocked_thread.h"
#include "platform/linux/running_thread.h"

namespace ThreadUtilities::platform {
namespace {

bool visitIfBlocked(unsigned int threadId, bool suspend, ContextVisitor visitor, void* state) {
    return visitBlockedThread(threadId, suspend, visitor, state) == BlockedVisit::Visited;
}

}  // namespace

VisitResult visitThreadContext(unsigned int threadId, bool suspend, ContextVisitor visitor,
                               void* state) noexcept {
    if (threadId == 0) {
        return VisitResult::NoSuchThread;
    }
    if (visitIfBlocked(threadId, suspend, visitor, state)) {
        return VisitResult::Visited;
    }
    const VisitResult result = visitBySignal(threadId, suspend, visitor, state);
    // A thread that blocks the signal may have come to rest in the meantime.
    if (result == VisitResult::NotAnswering && visitIfBlocked(threadId, suspend, visitor, state)) {
        return VisitResult::Visited;
    }
    return result;
}

}  // namespace ThreadUtilities::platform
