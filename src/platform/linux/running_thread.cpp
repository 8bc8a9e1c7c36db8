#include "platform/linux/running_thread.h"

#include <sched.h>

#include <algorithm>
#include <chrono>
#include <cstdint>

#include "platform/linux/capture_requests.h"
#include "platform/linux/capture_signal.h"
#include "platform/linux/kernel_calls.h"
#include "platform/linux/stack_layout.h"
#include "platform/linux/thread_stacks.h"
#include "platform/linux/thread_status.h"
#include "platform/thread_clock.h"

namespace ThreadUtilities::platform {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;

// A signal reaches another processor well within this time, unless the thread has lost that
// processor meanwhile.
constexpr microseconds spinTime{100};

// A thread may have to wait for a processor behind a thousand others. Only after this time is it
// given up although nothing speaks against an answer.
constexpr milliseconds longestWait{10'000};
constexpr milliseconds longestUninterruptibleWait{50};
constexpr milliseconds longestBlindWait{1'000};
constexpr milliseconds firstLook{4};
constexpr milliseconds longestPause{100};

void spin(const PostedRequest& request) {
    const auto end = Clock::now() + spinTime;
    do {
        for (int i = 0; i < 16; ++i) {
            if (request.isAnswered()) {
                return;
            }
            __builtin_ia32_pause();
        }
    } while (Clock::now() < end);
}

void sleepUntil(PostedRequest& request, Clock::time_point end) {
    for (auto now = Clock::now(); now < end && !request.isAnswered(); now = Clock::now()) {
        const auto left = std::chrono::nanoseconds(end - now).count();
        request.sleep({left / 1'000'000'000, left % 1'000'000'000});
    }
}

// Whether a thread that blocks the signal will go on doing so: it waits for something with the
// signal blocked, or used its processor for a while without unblocking it. One that got no
// processor meanwhile may only have been stopped in the middle of a handler.
bool blocksForLong(const ThreadStatus& status, std::uint64_t ranSince) {
    constexpr std::uint64_t longRun = 2'000'000;
    return status.sleeps || ranSince >= longRun;
}

milliseconds patienceWith(const ThreadStatus& status, std::uint64_t ranSince) {
    switch (status.answerability) {
        case Answerability::CanAnswer:
            return longestWait;
        case Answerability::BlocksSignal:
            return blocksForLong(status, ranSince) ? milliseconds(0) : longestWait;
        case Answerability::Uninterruptible:
            return longestUninterruptibleWait;
        case Answerability::Unknown:
            return longestBlindWait;
        case Answerability::Gone:
            break;
    }
    return milliseconds(0);
}

// The request stays posted only as long as this function runs: when it returns, the visitor has
// run to its end or never will.
VisitResult awaitAnswer(PostedRequest& request, unsigned int threadId, Waiting waiting) {
    if (waiting == Waiting::SpinFirst) {
        spin(request);
    }
    const auto start = Clock::now();
    const std::uint64_t ranAtStart = threadRunTime(threadId).value_or(0);
    milliseconds pause = firstLook;
    for (;;) {
        sleepUntil(request, Clock::now() + pause);
        if (request.isAnswered()) {
            return VisitResult::Visited;
        }
        const ThreadStatus status = readThreadStatus(threadId);
        const std::uint64_t ranSince = threadRunTime(threadId).value_or(0) - ranAtStart;
        if (Clock::now() - start >= patienceWith(status, ranSince)) {
            const bool answeredAtLast = !request.cancel();
            const bool gone = status.answerability == Answerability::Gone;
            return answeredAtLast ? VisitResult::Visited
                   : gone         ? VisitResult::NoSuchThread
                                  : VisitResult::NotAnswering;
        }
        // A host that reset its signal actions at the wrong moment has thrown the signal away. It
        // is sent again only if it would be delivered at once: one that stays pending, because
        // there is one already or because the thread is in the handler of the first and about to
        // answer, would swallow the next that the host itself sends to this thread. Because the
        // answer is looked for after the status was read, the first signal cannot have been
        // handled meanwhile.
        if (!status.signalIsPending && !status.signalIsBlocked && !request.isAnswered() &&
            ensureCaptureHandler()) {
            sendCaptureSignal(threadId);
        }
        pause = std::min(pause * 2, longestPause);
    }
}

VisitResult visitStanding(unsigned int threadId, const ReadableRange& stackBounds, Waiting waiting,
                          ContextVisitor visitor, void* state) {
    PostedRequest request(threadId, stackBounds, visitor, state);
    if (!request.isPosted()) {
        return VisitResult::NotAnswering;
    }
    switch (sendCaptureSignal(threadId)) {
        case SendResult::Sent:
            return awaitAnswer(request, threadId, waiting);
        case SendResult::NoSuchThread:
            return VisitResult::NoSuchThread;
        case SendResult::Refused:
            break;
    }
    return VisitResult::NotAnswering;
}

// Of the first thread's stack the part above its stack pointer is mapped, however far it has grown
// since its bounds were looked up: it grows by what is touched, and in one piece.
ReadableRange stackBoundsOf(unsigned int threadId) {
    ReadableRange bounds;
    if (!findThreadStack(threadId, bounds)) {
        return {};
    }
    const auto firstStackTop = reinterpret_cast<std::uint64_t>(__libc_stack_end);
    if (bounds.begin <= firstStackTop && firstStackTop < bounds.end) {
        bounds.begin = std::min(bounds.begin, bounds.end - firstStackReach);
    }
    return bounds;
}

VisitorAnswer copyContext(const ThreadContext& context, void* copy) noexcept {
    *static_cast<ThreadContext*>(copy) = context;
    return VisitorAnswer::Enough;
}

}  // namespace

VisitResult visitBySignal(unsigned int threadId, bool suspend, Waiting waiting,
                          ContextVisitor visitor, void* state) noexcept {
    if (!ensureCaptureHandler()) {
        return VisitResult::NotAnswering;
    }
    if (suspend) {
        return visitStanding(threadId, stackBoundsOf(threadId), waiting, visitor, state);
    }
    ThreadContext context;
    const VisitResult result = visitStanding(threadId, {}, waiting, copyContext, &context);
    if (result == VisitResult::Visited) {
        context.standsStill = false;
        visitor(context, state);
    }
    return result;
}

}  // namespace ThreadUtilities::platform
