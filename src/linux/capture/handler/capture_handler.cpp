// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/capture/handler/capture_handler.h"

#include <ucontext.h>

#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdint>

#include "linux/capture/handler/capture_request.h"
#include "linux/capture/handler/handler_chain.h"
#include "linux/capture/handler/saved_registers.h"
#include "linux/kernel_calls.h"
#include "platform/memory.h"

// Context: signal handler on the target thread, which may have no thread-local storage: no
// allocation, no lock, no log, no thread_local, no errno.

namespace ThreadUtilities::platform {

constinit RequestTable captureRequests{};

namespace {

// Each copy of this code answers its own.
void* identityOfThisCopy() noexcept {
    return &captureRequests;
}

bool isCaptureSignal(const siginfo_t& info) noexcept {
    return info.si_code == SI_TIMER && info.si_value.sival_ptr == identityOfThisCopy();
}

/// Where a handler stands: what shows whether an older one of the same thread is still there.
struct HandlerPlace {
    std::uintptr_t frame = 0;
    std::uintptr_t alternateStack = 0;  ///< its begin; 0 when the handler runs on another stack
};

HandlerPlace placeOf(std::uintptr_t frame, const stack_t& alternate) noexcept {
    const auto begin = reinterpret_cast<std::uintptr_t>(alternate.ss_sp);
    return {frame, frame - begin < alternate.ss_size ? begin : 0};
}

bool hasRoom(const HandlerPlace& place, const CaptureRequest& request) noexcept {
    if (place.alternateStack != 0) {
        return place.frame - place.alternateStack >= handlerRoom;
    }
    const ReadableRange& own = request.stackBounds;
    if (own.begin <= place.frame && place.frame < own.end) {
        return place.frame - own.begin >= handlerRoom;
    }
    // A stack that nobody told of, a coroutine's: what lies below it may be a guard.
    char byte = 0;
    return !request.mayCallSystem ||
           readOwnMemory(place.frame - handlerRoom, &byte, sizeof(byte)) == sizeof(byte);
}

// A host's handler for a fault may jump out of the middle of an answer. On one stack a handler that
// is still there lies above those that began after it; therefore one that does not is gone.
bool hasLeft(const CaptureRequest& request, const HandlerPlace& now) noexcept {
    return request.handlerStack == now.alternateStack && request.handlerFrame <= now.frame;
}

void leaveSlot(const CaptureRequest& request) noexcept {
    captureRequests.giveBack(static_cast<std::size_t>(&request - captureRequests.slots.data()));
}

bool claim(CaptureRequest& request, std::uint32_t threadId, const HandlerPlace& place,
           RequestWord& claimed) noexcept {
    std::uint32_t bits = request.word.load(std::memory_order_acquire);
    while (request.threadId.load(std::memory_order_relaxed) == threadId) {
        const RequestWord word(bits);
        if (word.phase() == RequestPhase::Abandoned && hasLeft(request, place)) {
            if (request.word.compare_exchange_strong(bits, word.nextFree().bits(),
                                                     std::memory_order_acq_rel)) {
                leaveSlot(request);
            }
            return false;
        }
        if (word.phase() != RequestPhase::Posted) {
            return false;
        }
        claimed = word.with(RequestPhase::Claimed);
        if (request.word.compare_exchange_weak(bits, claimed.bits(), std::memory_order_acquire)) {
            request.handlerFrame = place.frame;
            request.handlerStack = place.alternateStack;
            return true;
        }
    }
    return false;
}

// A handler that was left and then gone on with after all finds another generation.
void complete(CaptureRequest& request, RequestWord claimed, bool mayCallSystem) noexcept {
    std::uint32_t bits = request.word.load(std::memory_order_relaxed);
    while (RequestWord(bits).generation() == claimed.generation()) {
        const RequestWord word(bits);
        const bool isAbandoned = word.phase() == RequestPhase::Abandoned;
        const RequestWord next = isAbandoned ? word.nextFree() : word.with(RequestPhase::Done);
        if (!request.word.compare_exchange_weak(bits, next.bits(), std::memory_order_acq_rel)) {
            continue;
        }
        if (isAbandoned) {
            leaveSlot(request);
        } else if (word.capturerSleeps() && mayCallSystem) {
            // The capturer may be gone and the slot in other hands; a wake-up too many is harmless.
            futexWakeAll(request.word);
        }
        return;
    }
}

void answer(CaptureRequest& request, RequestWord claimed, const HandlerPlace& place,
            const ucontext_t& interrupted) noexcept {
    const bool mayCallSystem = request.mayCallSystem;
    request.room.frameCount = 0;
    request.answer = VisitorAnswer::Enough;
    if (hasRoom(place, request)) {
        ThreadContext context;
        context.registers = savedRegisters(interrupted);
        context.stack = readableStack(request.stackBounds, context.registers[Rsp]);
        context.readableStack = pagesOfSignal(interrupted);
        context.mayCallSystem = mayCallSystem;
        context.scratch = request.scratch;
        request.answer = request.visitor(context, request.room);
    }
    complete(request, claimed, mayCallSystem);
}

// All requests to this thread, whoever sent the signal. A handler that comes late, after its
// capturer gave up, finds nothing and touches nothing.
void answerAllRequests(std::uint32_t threadId, const HandlerPlace& place,
                       const ucontext_t& interrupted) noexcept {
    for (std::size_t group = 0; group < captureRequests.used.size(); ++group) {
        std::uint64_t used = captureRequests.used[group].load(std::memory_order_acquire);
        for (; used != 0; used &= used - 1) {
            const auto bit = static_cast<std::size_t>(__builtin_ctzll(used));
            CaptureRequest& request = captureRequests.slots[group * slotsPerWord + bit];
            RequestWord claimed;
            if (claim(request, threadId, place, claimed)) {
                answer(request, claimed, place, interrupted);
            }
        }
    }
}

/// How often a signal was passed on, in the part of its information that no signal uses. Whether
/// the kernel has cleared that part differs from version to version.
struct PassCount {
    std::uint64_t mark;
    std::uint64_t count;
};

bool countPass(siginfo_t* info) noexcept {
    auto* const last = reinterpret_cast<char*>(info + 1) - sizeof(PassCount);
    PassCount passes;
    __builtin_memcpy(&passes, last, sizeof(passes));
    passes = {chainMarkFirst, passes.mark == chainMarkFirst ? passes.count + 1 : 1};
    __builtin_memcpy(last, &passes, sizeof(passes));
    return passes.count <= mostChainedHandlers;
}

// The kernel fills all three argument registers for plain handlers as well.
void passOn(int number, siginfo_t* info, void* interrupted) noexcept {
    const std::uintptr_t function = previousAction.function.load(std::memory_order_acquire);
    if (function == reinterpret_cast<std::uintptr_t>(SIG_DFL) ||
        function == reinterpret_cast<std::uintptr_t>(SIG_IGN) || !countPass(info)) {
        return;
    }
    reinterpret_cast<void (*)(int, siginfo_t*, void*)>(function)(number, info, interrupted);
}

}  // namespace

void onCaptureSignal(int number, siginfo_t* info, void* interrupted) noexcept {
    if (!isCaptureSignal(*info)) {
        passOn(number, info, interrupted);
        return;
    }
    const auto& context = *static_cast<const ucontext_t*>(interrupted);
    const auto frame = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
    answerAllRequests(static_cast<std::uint32_t>(info->si_overrun),
                      placeOf(frame, context.uc_stack), context);
}

siginfo_t captureSignalInfo(int number, unsigned int threadId) noexcept {
    siginfo_t info{};
    info.si_signo = number;
    info.si_code = SI_TIMER;
    info.si_overrun = static_cast<int>(threadId);
    info.si_value.sival_ptr = identityOfThisCopy();
    return info;
}

}  // namespace ThreadUtilities::platform
