#include "platform/thread_context.h"

#include "scripted_platform/thread_context_script.h"

namespace ThreadUtilities::platform {

VisitResult visitThreadContext(unsigned int threadId, bool, ContextVisitor visitor,
                               void* visitorState) noexcept {
    ++scripted::visits;
    const auto found = scripted::visitScripts.find(threadId);
    if (found == scripted::visitScripts.end()) {
        return VisitResult::NoSuchThread;
    }
    for (const ThreadContext& context : found->second.contexts) {
        visitor(context, visitorState);
    }
    return found->second.result;
}

ReadableRange currentStackRange() noexcept {
    return {};
}

}  // namespace ThreadUtilities::platform
