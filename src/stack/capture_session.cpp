// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "stack/capture_session.h"

#include <ThreadUtilities/StackTrace.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>

#include "platform/clock.h"
#include "platform/current.h"
#include "platform/debugger.h"
#include "stack/stack_trace.h"

namespace ThreadUtilities {
namespace {

using platform::RunWitness;

constexpr std::size_t newThreadsBetweenSweeps = 256;

// A debugger attaches to all threads, each of which runs for a moment to notice it: it is seldom
// that one is there and a thread has not run since.
constexpr std::chrono::milliseconds asLongAsForResults(10);
constexpr std::chrono::milliseconds asLongAsHintsDo(5);

}  // namespace

// The hint overlooks up to one in 400 runs, of microseconds. Therefore it serves only those who ask
// more often than every few milliseconds: what a sample shows wrongly is corrected after that.
CaptureSession::Since CaptureSession::sinceRest(KnownThreads::value_type& known, Time now) {
    auto& [threadId, thread] = known;
    std::optional<std::uint64_t> hint;
    if (thread.witness) {
        hint = thread.witness->readHint();
        if (hint && hint == thread.hint && now - thread.provenAt < asLongAsHintsDo) {
            return Since::Unchanged;
        }
    }
    const auto runs = thread.witness ? thread.witness->read() : RunWitness(threadId).read();
    if (!runs) {
        return Since::Ended;
    }
    if (thread.frames.empty() || runs != thread.runs) {
        thread.hint.reset();
        return Since::Ran;
    }
    // Because the hint was read before the proof, it is as old as the rest that was proven.
    thread.hint = hint;
    thread.provenAt = now;
    return Since::Unchanged;
}

CaptureSession::KnownThreads::iterator CaptureSession::forget(KnownThreads::iterator known) {
    freeFiles += known->second.files;
    return knownThreads.erase(known);
}

// Threads that come and go leave behind what nobody asks for again.
void CaptureSession::forgetEndedThreads() {
    const Time now = platform::steadyNow();
    for (auto known = knownThreads.begin(); known != knownThreads.end();) {
        const bool hasEnded = sinceRest(*known, now) == Since::Ended;
        known = hasEnded ? forget(known) : std::next(known);
    }
}

CaptureSession::KnownThreads::iterator CaptureSession::know(unsigned int threadId) {
    if (++newThreads >= newThreadsBetweenSweeps) {
        newThreads = 0;
        forgetEndedThreads();
    }
    const auto known = knownThreads.try_emplace(threadId).first;
    // What tells whether a thread has run is asked most; so half of the files are left to that.
    KnownThread& thread = known->second;
    if (freeFiles > 0) {
        const bool keepsAll = freeFiles > mostFiles / 2 && freeFiles >= RunWitness::mostFiles;
        thread.witness = std::make_unique<RunWitness>(threadId, keepsAll);
        thread.files = keepsAll ? RunWitness::mostFiles : 1;
        freeFiles -= thread.files;
    }
    return known;
}

platform::Visit CaptureSession::visitKnown(KnownThreads::const_iterator known, Time now) {
    const auto& [threadId, thread] = *known;
    platform::VisitRequest request;
    request.threadId = threadId;
    request.deadline = std::min(deadline, now + longestCapture);
    request.witness = thread.witness.get();
    buffer[0] = 0;
    return series.capture(request, buffer);
}

// A stack is kept only if its thread was at rest when it was captured, with what its witness said
// then. As long as the witness says the same, the thread has not run since, and the stack is what
// it was.
std::size_t CaptureSession::capture(unsigned int threadId) {
    unchanged = false;
    if (buffer.empty()) {
        return 0;
    }
    if (threadId == platform::currentThreadId()) {
        return static_cast<std::size_t>(
            getStackTrace(threadId, buffer.data(), buffer.size(), true));
    }
    const Time now = platform::steadyNow();
    auto known = knownThreads.find(threadId);
    if (known != knownThreads.end()) {
        const Since since = sinceRest(*known, now);
        if (since == Since::Unchanged) {
            if (series.isDebuggerAttached(asLongAsForResults)) {
                return 0;
            }
            const auto& frames = known->second.frames;
            std::copy(frames.begin(), frames.end(), buffer.begin());
            unchanged = true;
            return frames.size();
        }
        if (since == Since::Ended) {
            forget(known);  // another thread may have its id by now
            known = knownThreads.end();
        }
    }
    if (known == knownThreads.end()) {
        known = know(threadId);
    }
    const platform::Visit visit = visitKnown(known, now);
    if (visit.result == platform::VisitResult::NoSuchThread) {
        forget(known);
        return 0;
    }
    if (visit.atRest && visit.frameCount != 0) {
        known->second.runs = *visit.atRest;
        known->second.hint.reset();
        known->second.frames.assign(buffer.begin(),
                                    buffer.begin() + static_cast<std::ptrdiff_t>(visit.frameCount));
    }
    return visit.frameCount;
}

}  // namespace ThreadUtilities
