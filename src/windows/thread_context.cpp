// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/thread_context.h"

#include <windows.h>

#include <algorithm>
#include <chrono>

#include "platform/debugger.h"
#include "windows/handle.h"
#include "windows/visit_order.h"

namespace ThreadUtilities::platform {
namespace {

static_assert(THREAD_ALL_ACCESS == 0x1FFFFF);
static_assert(CONTEXT_FULL == 0x10000B && sizeof(CONTEXT) == 1232);

constinit VisitOrder order;

// A visit lasts microseconds. A visitor that goes on for this long is itself held by something.
constexpr std::chrono::seconds patience{1};

bool beginVisit(VisitOrder::Visit& visit, const VisitRequest& request) noexcept {
    const auto deadline = std::min(request.deadline, std::chrono::steady_clock::now() + patience);
    while (!visit.tryBegin(request.threadId)) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        SwitchToThread();
    }
    return true;
}

/// Stops a thread for the length of a scope. Resumes only what it suspended: a resume without its
/// suspension would end one that somebody else made.
class Suspension {
 public:
    explicit Suspension(HANDLE target) noexcept
        : thread(target), inForce(SuspendThread(target) != static_cast<DWORD>(-1)) {}
    ~Suspension() {
        if (inForce) {
            ResumeThread(thread);
        }
    }

    Suspension(const Suspension&) = delete;
    Suspension& operator=(const Suspension&) = delete;

    bool isInForce() const noexcept { return inForce; }

 private:
    HANDLE thread;
    bool inForce;
};

Registers registersOf(const CONTEXT& context) noexcept {
    Registers registers{};
    registers[Rax] = context.Rax;
    registers[Rdx] = context.Rdx;
    registers[Rcx] = context.Rcx;
    registers[Rbx] = context.Rbx;
    registers[Rsi] = context.Rsi;
    registers[Rdi] = context.Rdi;
    registers[Rbp] = context.Rbp;
    registers[Rsp] = context.Rsp;
    registers[R8] = context.R8;
    registers[R9] = context.R9;
    registers[R10] = context.R10;
    registers[R11] = context.R11;
    registers[R12] = context.R12;
    registers[R13] = context.R13;
    registers[R14] = context.R14;
    registers[R15] = context.R15;
    registers[Rip] = context.Rip;
    return registers;
}

// The visitor runs on the calling thread, so the caller's own room will do.
Visit readAndShow(HANDLE thread, bool isStopped, ContextVisitor visitor,
                  std::span<unsigned long long> frames) noexcept {
    CONTEXT context{};
    context.ContextFlags = CONTEXT_FULL;
    if (GetThreadContext(thread, &context) == 0) {
        return {VisitResult::NoSuchThread};
    }
    // All registers are known and there is no more room, so the visitor's answer is that it has
    // enough. The bounds of the thread's stack are not asked for: its walk runs under a guard.
    ThreadContext seen;
    seen.registers = registersOf(context);
    seen.isStopped = isStopped;
    VisitRoom room{frames.data(), frames.size()};
    visitor(seen, room);
    return {VisitResult::Visited, room.frameCount};
}

Visit stopAndShow(HANDLE thread, const VisitRequest& request,
                  std::span<unsigned long long> frames) noexcept {
    VisitOrder::Visit visit(order, GetCurrentThreadId());
    if (!beginVisit(visit, request)) {
        return {};
    }
    // Declared behind the visit, so that the thread runs again before the visit ends. A suspension
    // that failed does not end the visit: a thread that others suspended as often as the system
    // counts is stopped all the same, and one that has ended has no context.
    const Suspension suspension(thread);
    return readAndShow(thread, suspension.isInForce(), request.visitor, frames);
}

}  // namespace

Visit visitThreadContext(const VisitRequest& request,
                         std::span<unsigned long long> frames) noexcept {
    if (isDebuggerAttached()) {
        return {};
    }
    const Handle thread(OpenThread(THREAD_ALL_ACCESS, FALSE, request.threadId));
    // A thread of another process could be stopped as well, but nothing true could be said of it:
    // its addresses mean something else here.
    if (!thread || GetProcessIdOfThread(thread.get()) != GetCurrentProcessId()) {
        return {VisitResult::NoSuchThread};
    }
    return request.suspend ? stopAndShow(thread.get(), request, frames)
                           : readAndShow(thread.get(), false, request.visitor, frames);
}

}  // namespace ThreadUtilities::platform
