// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "stack/stack_trace.h"

#include <ThreadUtilities/StackTrace.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/clock.h"
#include "platform/current.h"
#include "platform/debugger.h"
#include "platform/thread_context.h"
#include "stack/handler/capture_visitor.h"
#include "unwind/frame_walk.h"

namespace ThreadUtilities {

platform::Visit captureOtherThread(const platform::VisitRequest& asked,
                                   std::span<unsigned long long> frames) {
    prepareFrameWalks();
    platform::VisitRequest request = asked;
    request.visitor = collectFrames;
    platform::Visit visit = platform::visitThreadContext(request, frames);
    // A walk that held its thread left long searches to this.
    constexpr int mostSearches = 8;
    for (int searches = 0; searches < mostSearches && searchForWalks(); ++searches) {
        if (platform::steadyNow() >= request.deadline) {
            break;
        }
        visit = platform::visitThreadContext(request, frames);
    }
    return visit;
}

namespace {

// A debugger is attached to all threads; so the visit, which does not visit a thread that is
// traced, has asked already. It writes nothing where it fails.
std::size_t captureFromCaller(unsigned int threadId, std::span<unsigned long long> frames,
                              bool suspend) {
    platform::VisitRequest request;
    request.threadId = threadId;
    request.suspend = suspend;
    request.deadline = platform::steadyNow() + longestCapture;
    const std::size_t frameCount = captureOtherThread(request, frames).frameCount;
    if (frameCount == 0 && !platform::isDebuggerAttached()) {
        frames[0] = 0;
    }
    return frameCount;
}

}  // namespace

bool CaptureSeries::isDebuggerAttached(std::chrono::milliseconds answerLasts) noexcept {
    const auto now = platform::steadyNow();
    if (!debuggerIsKnown || now - debuggerAskedAt >= answerLasts) {
        debuggerAttached = platform::isDebuggerAttached();
        debuggerAskedAt = now;
        debuggerIsKnown = true;
    }
    return debuggerAttached;
}

// A thread is found at rest only where the system speaks of this process's threads by the numbers
// that this process knows them by: then it does so of all of them.
platform::Visit CaptureSeries::capture(platform::VisitRequest request,
                                       std::span<unsigned long long> frames) {
    request.looksFirst = foundOneAtRest && !isDebuggerAttached();
    const platform::Visit visit = captureOtherThread(request, frames);
    foundOneAtRest = foundOneAtRest || visit.atRest.has_value();
    return visit;
}

std::size_t CaptureSeries::capture(unsigned int threadId, std::span<unsigned long long> frames) {
    if (threadId == platform::currentThreadId()) {
        return static_cast<std::size_t>(
            getStackTrace(threadId, frames.data(), frames.size(), true));
    }
    platform::VisitRequest request;
    request.threadId = threadId;
    request.deadline = platform::steadyNow() + longestCapture;
    return capture(request, frames).frameCount;
}

// The calling thread's first entry lies in this function: it is never inlined, and the walk is not
// its last act, which would let the compiler turn the call into a jump.
[[gnu::noinline]] unsigned long long getStackTrace(const unsigned int& threadId,
                                                   unsigned long long* frames,
                                                   unsigned long long maxFrames, bool suspend) {
    if (frames == nullptr || maxFrames == 0) {
        return 0;
    }
    const unsigned int target = threadId;
    if (target != platform::currentThreadId()) {
        return captureFromCaller(target, {frames, static_cast<std::size_t>(maxFrames)}, suspend);
    }
    if (platform::isDebuggerAttached()) {
        return 0;
    }
    frames[0] = 0;
    // A thread's own stack is asked for with a 32-bit limit on every system.
    const volatile std::size_t frameCount =
        walkCallingThread(frames, static_cast<std::uint32_t>(maxFrames));
    return frameCount;
}

}  // namespace ThreadUtilities
