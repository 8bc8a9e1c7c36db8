// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/thread_context.h"

#include <optional>
#include <span>

#include "linux/capture/blocked_thread.h"
#include "linux/capture/run_witness.h"
#include "linux/capture/running_thread.h"
#include "linux/capture/thread_status.h"
#include "platform/debugger.h"

namespace ThreadUtilities::platform {
namespace {

// Whoever asks runs on a processor; therefore a thread whose clock moves meanwhile runs on another.
bool runsElsewhere(unsigned int threadId) {
    return threadRunTime(threadId) != threadRunTime(threadId);
}

BlockedVisit visitIfBlocked(const VisitRequest& request, VisitSlot& slot,
                            std::span<unsigned long long> frames, Visit& visit) {
    slot.clearRoom();
    std::optional<ThreadRuns> atRest;
    const BlockedVisit result = visitBlockedThread(request, slot, atRest);
    if (result == BlockedVisit::Visited) {
        visit = {VisitResult::Visited, slot.copyFrames(frames), atRest};
    } else if (result == BlockedVisit::NotPossible) {
        slot.keepFrames();
    }
    return result;
}

// The slot of the visit may have been left to a handler that did not finish.
void lookAgain(const VisitRequest& request, VisitSlot& slot, std::span<unsigned long long> frames,
               Visit& visit) {
    if (slot.isTaken()) {
        visitIfBlocked(request, slot, frames, visit);
    } else if (VisitSlot another(frames.size(), request.deadline); another.isTaken()) {
        visitIfBlocked(request, another, frames, visit);
    }
}

// Nothing of a thread need be known to look at it, but that it is the right one.
std::optional<Visit> lookBeforeAsking(const VisitRequest& request,
                                      std::span<unsigned long long> frames) {
    VisitSlot slot(frames.size(), request.deadline);
    Visit visit;
    if (slot.isTaken() && visitIfBlocked(request, slot, frames, visit) == BlockedVisit::Visited) {
        return visit;
    }
    return std::nullopt;
}

// A thread that runs may come to rest at any moment, and a signal would end its wait or cut short
// its transfer; so the last look before the signal is at whether it has.
Visit visitKnownThread(const VisitRequest& request, const ThreadStatus& status, VisitSlot& slot,
                       std::span<unsigned long long> frames) {
    Visit visit;
    BlockedVisit outcome = BlockedVisit::RanMeanwhile;
    Waiting waiting = Waiting::Sleep;
    constexpr int looks = 2;
    bool wasRunning = status.state == 'R';
    for (int look = 0; look < looks && outcome == BlockedVisit::RanMeanwhile; ++look) {
        if (wasRunning && runsElsewhere(request.threadId)) {
            waiting = Waiting::SpinFirst;
            break;
        }
        outcome = visitIfBlocked(request, slot, frames, visit);
        wasRunning = true;
    }
    if (outcome == BlockedVisit::AwaitsItsStack) {
        return {VisitResult::NotAnswering};
    }
    if (outcome != BlockedVisit::Visited) {
        visit = visitBySignal(request, status, waiting, slot, frames);
    }
    // It may have blocked the signal while it ran, and sleep by now.
    if (visit.result == VisitResult::NotAnswering) {
        lookAgain(request, slot, frames, visit);
    }
    return visit;
}

}  // namespace

// Nothing is done to a thread before its status is known, but a look. Then the cheapest way that
// can work comes first: a thread that is blocked in the kernel is looked at from outside, any other
// is sent a signal.
Visit visitThreadContext(const VisitRequest& request,
                         std::span<unsigned long long> frames) noexcept {
    if (request.threadId == 0) {
        return {VisitResult::NoSuchThread};
    }
    if (request.looksFirst) {
        if (const auto visit = lookBeforeAsking(request, frames)) {
            return *visit;
        }
    }
    const ThreadStatus status =
        readThreadStatus(request.threadId, FilesForVisits(request.witness).status);
    if (status.reading == ThreadStatus::Reading::Gone) {
        return {VisitResult::NoSuchThread};
    }
    const bool isKnown = status.reading == ThreadStatus::Reading::Known;
    // A signal would stop it until its debugger lets it go on.
    if (isKnown ? status.isTraced : isDebuggerAttached()) {
        return {VisitResult::NotAnswering};
    }
    VisitSlot slot(frames.size(), request.deadline);
    if (!slot.isTaken()) {
        return {VisitResult::NotAnswering};
    }
    // Without a /proc that speaks of this process the signal is all there is.
    return isKnown ? visitKnownThread(request, status, slot, frames)
                   : visitBySignal(request, status, Waiting::Sleep, slot, frames);
}

}  // namespace ThreadUtilities::platform
