#include "stack/capture_session.h"

#include <ThreadUtilities/StackTrace.h>

#include <algorithm>

#include "platform/clock.h"
#include "platform/current.h"
#include "platform/debugger.h"
#include "platform/thread_clock.h"
#include "stack/stack_trace.h"

namespace ThreadUtilities {
namespace {

// Threads that come and go leave stacks behind that nobody asks for again.
constexpr std::size_t mostKnownStacks = 16384;

}  // namespace

bool CaptureSession::isDebuggerAttached() {
    const auto now = platform::steadyNow();
    if (!debuggerIsKnown || now - debuggerAskedAt >= std::chrono::milliseconds(1)) {
        debuggerAttached = platform::isDebuggerAttached();
        debuggerAskedAt = now;
        debuggerIsKnown = true;
    }
    return debuggerAttached;
}

std::size_t CaptureSession::captureAnew(unsigned int threadId) {
    buffer[0] = 0;
    return static_cast<std::size_t>(
        captureOtherThread(threadId, buffer.data(), buffer.size(), true));
}

// The thread's clock is read before the capture and after it. If it stood still, the frames belong
// to that time, whichever moment of it they were taken at; and as long as the clock shows the same
// time at a later call, the thread has not run and its stack is the same.
std::size_t CaptureSession::capture(unsigned int threadId) {
    if (buffer.empty() || isDebuggerAttached()) {
        return 0;
    }
    if (threadId == platform::currentThreadId()) {
        return static_cast<std::size_t>(
            getStackTrace(threadId, buffer.data(), buffer.size(), true));
    }
    const auto before = platform::threadRunTime(threadId);
    if (!before) {
        return captureAnew(threadId);
    }
    const auto known = knownStacks.find(threadId);
    if (known != knownStacks.end() && known->second.runTime == *before) {
        std::copy(known->second.frames.begin(), known->second.frames.end(), buffer.begin());
        return known->second.frames.size();
    }
    const std::size_t count = captureAnew(threadId);
    if (count != 0 && platform::threadRunTime(threadId) == before) {
        if (knownStacks.size() == mostKnownStacks && known == knownStacks.end()) {
            knownStacks.clear();
        }
        KnownStack& stack = knownStacks[threadId];
        stack.runTime = *before;
        stack.frames.assign(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(count));
    }
    return count;
}

}  // namespace ThreadUtilities
