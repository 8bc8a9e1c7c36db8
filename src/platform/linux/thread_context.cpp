#include "platform/thread_context.h"

#include "platform/linux/blocked_thread.h"
#include "platform/linux/running_thread.h"
#include "platform/thread_clock.h"

namespace ThreadUtilities::platform {
namespace {

// Whoever asks runs on a processor; therefore a thread whose clock moves meanwhile runs on another.
bool runsElsewhere(unsigned int threadId) {
    return threadRunTime(threadId) != threadRunTime(threadId);
}

bool visitIfBlocked(unsigned int threadId, bool suspend, ContextVisitor visitor, void* state) {
    return visitBlockedThread(threadId, suspend, visitor, state) == BlockedVisit::Visited;
}

}  // namespace

// The cheapest way that can work comes first: a thread that is blocked in the kernel is looked at
// from outside, any other is sent a signal.
VisitResult visitThreadContext(unsigned int threadId, bool suspend, ContextVisitor visitor,
                               void* state) noexcept {
    if (threadId == 0) {
        return VisitResult::NoSuchThread;
    }
    // A thread that did not answer may have come to rest since, or have blocked the signal only for
    // as long as it waited for something.
    constexpr int attempts = 3;
    VisitResult result = VisitResult::NotAnswering;
    for (int i = 0; i < attempts && result == VisitResult::NotAnswering; ++i) {
        const bool isRunning = runsElsewhere(threadId);
        if (!isRunning && visitIfBlocked(threadId, suspend, visitor, state)) {
            return VisitResult::Visited;
        }
        const Waiting waiting = isRunning ? Waiting::SpinFirst : Waiting::Sleep;
        result = visitBySignal(threadId, suspend, waiting, visitor, state);
    }
    if (result == VisitResult::NotAnswering && visitIfBlocked(threadId, suspend, visitor, state)) {
        return VisitResult::Visited;
    }
    return result;
}

}  // namespace ThreadUtilities::platform
