// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/capture/running_thread.h"

#include <algorithm>
#include <chrono>
#include <new>
#include <span>
#include <string_view>

#include "linux/capture/capture_requests.h"
#include "linux/capture/capture_signal.h"
#include "linux/capture/thread_stacks.h"
#include "linux/kernel_calls.h"

namespace ThreadUtilities::platform {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;

// A signal reaches another processor well within this time, unless the thread has lost that
// processor meanwhile.
constexpr microseconds spinTime{100};
constexpr microseconds nap{50};
constexpr milliseconds firstLook{4};
constexpr milliseconds longestPause{100};

// Waits for memory, a local disk or a spawned process's start are over by then; waits for a server
// that is gone are not.
constexpr milliseconds longestUninterruptibleWait{100};
// A fork of a large process computes for milliseconds with all signals blocked, and a thread that
// starts many others is seen in one moment after the other.
constexpr milliseconds longestBlockedRun{10};
constexpr milliseconds longestBlockedSleep{3};

enum class Outlook {
    WillAnswer,  ///< as soon as it gets a processor
    NotYet,      ///< may be in a moment that passes
    Never,
    Gone,
};

/// What can be expected of one thread, from one look at its status to the next.
class Watch {
 public:
    Watch(unsigned int threadId, const ThreadStatus& seen) : id(threadId), status(seen) {}

    void look() { status = readThreadStatus(id); }

    Outlook outlook() {
        if (status.reading != ThreadStatus::Reading::Known) {
            return status.reading == ThreadStatus::Reading::Gone ? Outlook::Gone
                                                                 : Outlook::WillAnswer;
        }
        constexpr std::string_view stopped = "TtI";
        if (status.isTraced || stopped.find(status.state) != std::string_view::npos) {
            return Outlook::Never;
        }
        const bool isBlocked = containsSignal(status.blockedSignals, captureSignal());
        if (status.state != 'D' && !isBlocked) {
            hindrance = Hindrance::None;
            return Outlook::WillAnswer;
        }
        note(status.state == 'D' ? Hindrance::Uninterruptible : Hindrance::Blocked);
        return lastsForLong() ? Outlook::Never : Outlook::NotYet;
    }

    /// Has neither taken the signal nor is kept from it.
    bool lostTheSignal() const {
        return !containsSignal(status.pendingSignals | status.blockedSignals, captureSignal());
    }

    /// Sleeps in spite of a signal that it could take, as a frozen thread does. One that has only
    /// just been woken by the signal is running at the next look.
    bool sleepsOnSignal() const {
        return status.state == 'S' && containsSignal(status.pendingSignals, captureSignal()) &&
               !containsSignal(status.blockedSignals, captureSignal());
    }

 private:
    enum class Hindrance { None, Uninterruptible, Blocked };

    void note(Hindrance found) {
        if (hindrance != found) {
            hindrance = found;
            since = Clock::now();
            ranBefore = runTime();
        }
    }

    // The C library keeps the signal out of every mask that a program sets, and itself blocks it
    // for moments only, while a thread starts or ends or another process is spawned; our handler
    // blocks it while it runs. None of these lasts long; but one that got no processor may have
    // been stopped in it.
    bool lastsForLong() const {
        const Clock::duration lasted = Clock::now() - since;
        if (hindrance == Hindrance::Uninterruptible) {
            return lasted >= longestUninterruptibleWait;
        }
        return status.state == 'S' ? lasted >= longestBlockedSleep
                                   : runTime() - ranBefore >= longestBlockedRun;
    }

    std::chrono::nanoseconds runTime() const {
        return std::chrono::nanoseconds(threadRunTime(id).value_or(0));
    }

    unsigned int id;
    ThreadStatus status;
    // What keeps it from answering, and since when.
    Hindrance hindrance = Hindrance::None;
    Clock::time_point since;
    std::chrono::nanoseconds ranBefore{};
};

/// Sends the signal as soon as it can be taken. `Visited` stands for sent.
VisitResult send(Watch& watch, const VisitRequest& request) {
    for (;; sleepFor(nap), watch.look()) {
        const Outlook outlook = watch.outlook();
        if (outlook == Outlook::Gone || outlook == Outlook::Never) {
            return outlook == Outlook::Gone ? VisitResult::NoSuchThread : VisitResult::NotAnswering;
        }
        if (outlook == Outlook::WillAnswer) {
            const SendResult result = sendCaptureSignal(request.threadId);
            if (result != SendResult::QueueFull) {
                return result == SendResult::Sent           ? VisitResult::Visited
                       : result == SendResult::NoSuchThread ? VisitResult::NoSuchThread
                                                            : VisitResult::NotAnswering;
            }
        }
        if (Clock::now() >= request.deadline) {
            return VisitResult::NotAnswering;
        }
    }
}

void spin(const PostedRequest& posted) {
    const auto end = Clock::now() + spinTime;
    do {
        for (int i = 0; i < 16; ++i) {
            if (posted.isAnswered()) {
                return;
            }
            __builtin_ia32_pause();
        }
    } while (Clock::now() < end);
}

void sleepUntil(PostedRequest& posted, Clock::time_point end, bool isWoken) {
    for (auto now = Clock::now(); now < end && !posted.isAnswered(); now = Clock::now()) {
        const Clock::duration left =
            isWoken ? end - now : std::min<Clock::duration>(end - now, nap);
        posted.sleep(timespecOf(left));
    }
}

// Why the wait is over although there is no answer; `Visited` while it is not.
VisitResult reasonToGiveUp(Watch& watch, const PostedRequest& posted, int& looksAtSleep) {
    watch.look();
    const Outlook outlook = watch.outlook();
    if (outlook == Outlook::Gone) {
        return VisitResult::NoSuchThread;
    }
    if (posted.isClaimed()) {
        return VisitResult::Visited;  // nothing but its own work keeps it
    }
    constexpr int patience = 3;
    looksAtSleep = watch.sleepsOnSignal() ? looksAtSleep + 1 : 0;
    const bool isHopeless = outlook == Outlook::Never || looksAtSleep >= patience;
    return isHopeless ? VisitResult::NotAnswering : VisitResult::Visited;
}

VisitResult awaitAnswer(PostedRequest& posted, Watch& watch, const VisitRequest& request,
                        Waiting waiting, bool isWoken) {
    if (waiting == Waiting::SpinFirst) {
        spin(posted);
    }
    milliseconds pause = firstLook;
    for (int looksAtSleep = 0;;) {
        sleepUntil(posted, std::min(Clock::now() + pause, request.deadline), isWoken);
        if (posted.isAnswered()) {
            return VisitResult::Visited;
        }
        const VisitResult reason = reasonToGiveUp(watch, posted, looksAtSleep);
        if (reason != VisitResult::Visited) {
            return reason;
        }
        if (Clock::now() >= request.deadline) {
            return VisitResult::NotAnswering;
        }
        // Somebody has put another action in place by the raw call, or taken the signal. Because
        // the answer is looked for after the status was read, and a handler that has not answered
        // has the signal blocked, it cannot be under way.
        if (watch.lostTheSignal() && !posted.isAnswered() && ensureCaptureHandler()) {
            sendCaptureSignal(request.threadId);
        }
        pause = std::min(pause * 2, longestPause);
    }
}

Visit withEarlierFrames(Visit visit, const VisitSlot& slot, std::span<unsigned long long> frames) {
    visit.frameCount = slot.copyEarlierFrames(frames);
    visit.result = visit.frameCount != 0 ? VisitResult::Visited : visit.result;
    return visit;
}

/// Once answered, what was found is still in the slot; else it has no frames or is the last word.
Visit visitOnce(VisitSlot& slot, const VisitRequest& request, Watch& watch, Waiting waiting,
                const PostedRequest::Question& question, VisitorAnswer& answer,
                std::span<unsigned long long> frames) {
    PostedRequest posted(slot, question);
    VisitResult result = send(watch, request);
    if (result == VisitResult::Visited) {
        result = awaitAnswer(posted, watch, request, waiting, question.mayCallSystem);
    }
    // Between the last look and this, the handler may have begun, and even ended.
    if (result != VisitResult::Visited && !posted.cancel() && posted.isAnswered()) {
        result = VisitResult::Visited;
    }
    if (result == VisitResult::Visited) {
        answer = posted.answer();
        return {result};
    }
    return withEarlierFrames({result}, slot, frames);  // while the slot is still ours
}

VisitorAnswer copyContext(const ThreadContext& context, VisitRoom&) noexcept {
    static_assert(sizeof(ThreadContext) <= visitScratchSize);
    new (context.scratch.data()) ThreadContext(context);
    return VisitorAnswer::Enough;
}

// The registers are the thread's of a moment ago; the visitor runs here, in another slot's room.
void visitCopy(VisitSlot& slot, const VisitRequest& request) {
    ThreadContext context = *std::launder(reinterpret_cast<ThreadContext*>(slot.scratch().data()));
    context.isStopped = false;
    context.mayCallSystem = true;
    while (request.visitor(context, slot.room()) == VisitorAnswer::RoomMissing && slot.growRoom()) {
    }
}

}  // namespace

Visit visitBySignal(const VisitRequest& request, const ThreadStatus& status, Waiting waiting,
                    VisitSlot& slot, std::span<unsigned long long> frames) noexcept {
    Visit visit;
    slot.clearRoom();
    if (!ensureCaptureHandler()) {
        return withEarlierFrames(visit, slot, frames);
    }
    const PostedRequest::Question question{
        request.threadId, request.suspend ? request.visitor : copyContext,
        request.suspend ? threadStackBounds(request.threadId) : ReadableRange{},
        status.reading == ThreadStatus::Reading::Known && !status.hasSystemCallFilter};
    Watch watch(request.threadId, status);
    VisitorAnswer answer = VisitorAnswer::Enough;
    do {
        visit = visitOnce(slot, request, watch, waiting, question, answer, frames);
        if (visit.result != VisitResult::Visited || visit.frameCount != 0) {
            return visit;
        }
    } while (answer == VisitorAnswer::RoomMissing && slot.growRoom());
    if (!request.suspend) {
        visitCopy(slot, request);
    }
    visit.frameCount = slot.copyFrames(frames);
    // It had no room to walk in.
    return visit.frameCount != 0 ? visit : withEarlierFrames(visit, slot, frames);
}

}  // namespace ThreadUtilities::platform
