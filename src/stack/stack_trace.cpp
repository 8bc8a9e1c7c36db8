#include "stack/stack_trace.h"

#include <ThreadUtilities/StackTrace.h>

#include <algorithm>
#include <cstdint>

#include "platform/current.h"
#include "platform/debugger.h"
#include "platform/thread_context.h"
#include "stack/capture_visitor.h"
#include "stack/frame_walk.h"

namespace ThreadUtilities {
unsigned long long captureOtherThread(unsigned int threadId, unsigned long long* frames,
                                      unsigned long long maxFrames, bool suspend) {
    prepareFrameWalks();
    FrameCollection collected;
    collected.frames = frames;
    collected.maxFrames = static_cast<std::size_t>(maxFrames);
    if (platform::visitThreadContext(threadId, suspend, collectFrames, &collected) !=
        platform::VisitResult::Visited) {
        return 0;
    }
    if (collected.isProvisional) {
        std::copy_n(collected.provisional.data(), collected.frameCount, frames);
    }
    return collected.frameCount;
}

// The calling thread's first entry lies in this function: it is never inlined, and the walk is not
// its last act, which would let the compiler turn the call into a jump.
[[gnu::noinline]] unsigned long long getStackTrace(const unsigned int& threadId,
                                                   unsigned long long* frames,
                                                   unsigned long long maxFrames, bool suspend) {
    if (platform::isDebuggerAttached() || frames == nullptr || maxFrames == 0) {
        return 0;
    }
    const unsigned int target = threadId;
    frames[0] = 0;
    if (target != platform::currentThreadId()) {
        return captureOtherThread(target, frames, maxFrames, suspend);
    }
    // A thread's own stack is asked for with a 32-bit limit on every system.
    const volatile std::size_t frameCount =
        walkCallingThread(frames, static_cast<std::uint32_t>(maxFrames));
    return frameCount;
}

}  // namespace ThreadUtilities
