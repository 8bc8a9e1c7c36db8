// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "unwind/frame_walk.h"

#include <windows.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/thread_context.h"
#include "unwind/walk.h"
#include "windows/guarded_call.h"

// Walks by the unwinder that is part of the system. Every step is guarded, not the walk as a whole:
// a fault then ends the walk with the count of the frames stored before it. A guard costs
// nanoseconds, a step of the system's unwinder far more.

namespace ThreadUtilities {
namespace {

struct GuardedWords {
    bool read(std::uint64_t address, std::uint64_t& word) const noexcept {
        std::uint64_t found = 0;
        auto load = [&] { found = *reinterpret_cast<const volatile std::uint64_t*>(address); };
        if (!platform::runGuarded(load)) {
            return false;
        }
        word = found;
        return true;
    }
};

class SystemUnwinder {
 public:
    // The preserved floating-point registers start as zero: unwinding restores them from the stack
    // and never computes an address from them.
    explicit SystemUnwinder(const platform::Registers& start) noexcept {
        context.ContextFlags = CONTEXT_FULL;
        context.Rax = start[platform::Rax];
        context.Rdx = start[platform::Rdx];
        context.Rcx = start[platform::Rcx];
        context.Rbx = start[platform::Rbx];
        context.Rsi = start[platform::Rsi];
        context.Rdi = start[platform::Rdi];
        context.Rbp = start[platform::Rbp];
        context.Rsp = start[platform::Rsp];
        context.R8 = start[platform::R8];
        context.R9 = start[platform::R9];
        context.R10 = start[platform::R10];
        context.R11 = start[platform::R11];
        context.R12 = start[platform::R12];
        context.R13 = start[platform::R13];
        context.R14 = start[platform::R14];
        context.R15 = start[platform::R15];
        context.Rip = start[platform::Rip];
    }

    std::uint64_t programCounter() const noexcept { return context.Rip; }
    std::uint64_t stackPointer() const noexcept { return context.Rsp; }

    StepResult step(const GuardedWords&) noexcept {
        StepResult result = StepResult::Unreadable;
        auto unwind = [&] { result = unwindFrame() ? StepResult::Made : StepResult::NoUnwindData; };
        return platform::runGuarded(unwind) ? result : StepResult::Unreadable;
    }

    // The system's tables leave out none but leaf functions: a guess is right.
    bool returnTo(std::uint64_t address, std::uint64_t stackPointer) noexcept {
        context.Rip = address;
        context.Rsp = stackPointer;
        return true;
    }
    bool isReturnedTo() const noexcept { return true; }

 private:
    // Faults on a damaged stack; the object is of no more use then. False, with nothing changed,
    // when no unwind entry covers the program counter.
    bool unwindFrame() noexcept {
        DWORD64 imageBase = 0;
        RUNTIME_FUNCTION* entry = RtlLookupFunctionEntry(context.Rip, &imageBase, &history);
        if (entry == nullptr) {
            return false;
        }
        void* handlerData = nullptr;
        DWORD64 establisherFrame = 0;
        RtlVirtualUnwind(UNW_FLAG_NHANDLER, imageBase, context.Rip, entry, &context, &handlerData,
                         &establisherFrame, &pointers);
        return true;
    }

    CONTEXT context{};
    // Lookups in modules seen earlier in the same walk are answered from it.
    UNWIND_HISTORY_TABLE history{};
    // Filled by the system, read by nobody.
    KNONVOLATILE_CONTEXT_POINTERS pointers{};
};

}  // namespace

// The system's unwinder is part of the system: nothing is left to bind.
void prepareFrameWalks() noexcept {}

bool searchForWalks() noexcept {
    return false;
}

WalkResult walkThread(const platform::ThreadContext& context, unsigned long long* frames,
                      std::size_t maxFrames) noexcept {
    SystemUnwinder unwinder(context.registers);
    const GuardedWords words;
    return walkStack(unwinder, words, frames, maxFrames);
}

// Not inlined, because the trace begins at this function's return address.
[[gnu::noinline]] std::size_t walkCallingThread(unsigned long long* frames,
                                                std::size_t maxFrames) noexcept {
    // How many frames lie between the service and the caller is the compiler's affair: it may have
    // turned a call on the way into a jump.
    std::array<void*, 8> innermost{};
    ULONG hash = 0;
    const auto found = RtlCaptureStackBackTrace(0, innermost.size(), innermost.data(), &hash);
    const auto end = innermost.begin() + found;
    const auto start = std::find(innermost.begin(), end, __builtin_return_address(0));
    const auto skipped = start == end ? 0 : start - innermost.begin();

    static_assert(sizeof(unsigned long long) == sizeof(void*));
    const std::size_t count =
        RtlCaptureStackBackTrace(static_cast<ULONG>(skipped), static_cast<ULONG>(maxFrames),
                                 reinterpret_cast<void**>(frames), &hash);
    // A null address is behind the outermost frame; the service has been seen to go on behind it
    // (in Wine 8), with addresses that mean nothing.
    return static_cast<std::size_t>(std::find(frames, frames + count, 0ULL) - frames);
}

}  // namespace ThreadUtilities
