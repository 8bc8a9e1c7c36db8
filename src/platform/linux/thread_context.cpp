#include "platform/thread_context.h"

#include "platform/linux/running_thread.h"

namespace ThreadUtilities::platform {

VisitResult visitThreadContext(unsigned int threadId, bool suspend, ContextVisitor visitor,
                               void* state) noexcept {
    if (threadId == 0) {
        return VisitResult::NoSuchThread;
    }
    return visitBySignal(threadId, suspend, visitor, state);
}

}  // namespace ThreadUtilities::platform
