// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "stack/capture_session.h"

#include <ThreadUtilities/StackTrace.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <iterator>
#include <memory>
#include <optional>

#include "platform/clock.h"
#include "platform/current.h"
#include "platform/debugger.h"
#include "stack/stack_trace.h"

namespace ThreadUtilities {
namespace {

constexpr std::size_t newThreadsBetweenSweeps = 256;

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

std::optional<platform::ThreadRuns> CaptureSession::runsOf(const KnownStacks::value_type& known) {
    const auto& [threadId, stack] = known;
    return stack.witness ? stack.witness->read() : platform::RunWitness(threadId).read();
}

CaptureSession::KnownStacks::iterator CaptureSession::forget(KnownStacks::iterator known) {
    freeFiles += known->second.witness ? 1 : 0;
    return knownStacks.erase(known);
}

// Threads that come and go leave stacks behind that nobody asks for again.
void CaptureSession::forgetEndedThreads() {
    for (auto known = knownStacks.begin(); known != knownStacks.end();) {
        known = runsOf(*known) ? std::next(known) : forget(known);
    }
}

void CaptureSession::keep(unsigned int threadId, std::size_t frameCount,
                          const platform::ThreadRuns& runs) {
    const auto [entry, isNew] = knownStacks.try_emplace(threadId);
    KnownStack& stack = entry->second;
    if (isNew && freeFiles > 0) {
        stack.witness = std::make_unique<platform::RunWitness>(threadId);
        --freeFiles;
    }
    newThreads += isNew ? 1 : 0;
    stack.runs = runs;
    stack.frames.assign(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(frameCount));
    if (newThreads >= newThreadsBetweenSweeps) {
        newThreads = 0;
        forgetEndedThreads();
    }
}

// A stack is kept only if its thread was at rest when it was captured, with what its witness said
// then. As long as the witness says the same, the thread has not run since, and the stack is what
// it was.
std::size_t CaptureSession::capture(unsigned int threadId) {
    if (buffer.empty()) {
        return 0;
    }
    if (threadId == platform::currentThreadId()) {
        return static_cast<std::size_t>(
            getStackTrace(threadId, buffer.data(), buffer.size(), true));
    }
    if (const auto known = knownStacks.find(threadId); known != knownStacks.end()) {
        const auto runs = runsOf(*known);
        if (runs == known->second.runs) {
            if (isDebuggerAttached()) {
                return 0;
            }
            const auto& frames = known->second.frames;
            std::copy(frames.begin(), frames.end(), buffer.begin());
            return frames.size();
        }
        if (!runs) {
            forget(known);  // another thread may have its id by now
        }
    }
    buffer[0] = 0;
    const auto giveUp = std::min(deadline, platform::steadyNow() + longestCapture);
    const platform::Visit visit = captureOtherThread(threadId, buffer, true, giveUp);
    if (visit.atRest && visit.frameCount != 0) {
        keep(threadId, visit.frameCount, *visit.atRest);
    }
    return visit.frameCount;
}

}  // namespace ThreadUtilities
