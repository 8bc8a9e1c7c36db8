// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/frame_unwinder.h"

#include <windows.h>

#include <algorithm>
#include <new>
#include <type_traits>

#include "platform/windows/guarded_call.h"

namespace ThreadUtilities::platform {

struct FrameUnwinder::State {
    CONTEXT context;
    // Lookups in modules seen earlier in the same walk are answered from it.
    UNWIND_HISTORY_TABLE history;
    // Filled by the unwinder, read by nobody.
    KNONVOLATILE_CONTEXT_POINTERS pointers;
};

namespace {

static_assert(sizeof(UNWIND_HISTORY_TABLE) == 216);
static_assert(sizeof(KNONVOLATILE_CONTEXT_POINTERS) == 256);

// The preserved floating-point registers start as zero: unwinding restores them from the stack and
// never computes an address from them.
void setRegisters(CONTEXT& context, const Registers& registers) noexcept {
    context.ContextFlags = CONTEXT_FULL;
    context.Rax = registers[Rax];
    context.Rdx = registers[Rdx];
    context.Rcx = registers[Rcx];
    context.Rbx = registers[Rbx];
    context.Rsi = registers[Rsi];
    context.Rdi = registers[Rdi];
    context.Rbp = registers[Rbp];
    context.Rsp = registers[Rsp];
    context.R8 = registers[R8];
    context.R9 = registers[R9];
    context.R10 = registers[R10];
    context.R11 = registers[R11];
    context.R12 = registers[R12];
    context.R13 = registers[R13];
    context.R14 = registers[R14];
    context.R15 = registers[R15];
    context.Rip = registers[Rip];
}

}  // namespace

FrameUnwinder::FrameUnwinder(const Registers& start) noexcept {
    static_assert(sizeof(State) <= sizeof(storage) && alignof(State) <= 16);
    static_assert(std::is_trivially_destructible_v<State>);
    setRegisters((new (storage.data()) State{})->context, start);
}

FrameUnwinder::State& FrameUnwinder::state() noexcept {
    return *std::launder(reinterpret_cast<State*>(storage.data()));
}

const FrameUnwinder::State& FrameUnwinder::state() const noexcept {
    return *std::launder(reinterpret_cast<const State*>(storage.data()));
}

std::uint64_t FrameUnwinder::programCounter() const noexcept {
    return state().context.Rip;
}

std::uint64_t FrameUnwinder::stackPointer() const noexcept {
    return state().context.Rsp;
}

bool FrameUnwinder::unwindFrame() noexcept {
    CONTEXT& context = state().context;
    DWORD64 imageBase = 0;
    RUNTIME_FUNCTION* entry = RtlLookupFunctionEntry(context.Rip, &imageBase, &state().history);
    if (entry == nullptr) {
        return false;
    }
    void* handlerData = nullptr;
    DWORD64 establisherFrame = 0;
    RtlVirtualUnwind(UNW_FLAG_NHANDLER, imageBase, context.Rip, entry, &context, &handlerData,
                     &establisherFrame, &state().pointers);
    return true;
}

void FrameUnwinder::returnTo(std::uint64_t address, std::uint64_t stackPointer) noexcept {
    state().context.Rip = address;
    state().context.Rsp = stackPointer;
}

std::size_t traceCallingThread(std::uint64_t from, unsigned long long* frames,
                               std::size_t maxFrames) noexcept {
    // How many frames lie between the service and the wanted one is the compiler's affair: it may
    // have turned a call on the way into a jump.
    std::array<void*, 8> innermost{};
    ULONG hash = 0;
    const auto found = RtlCaptureStackBackTrace(0, innermost.size(), innermost.data(), &hash);
    const auto end = innermost.begin() + found;
    const auto start = std::find(innermost.begin(), end, reinterpret_cast<void*>(from));
    const auto skipped = start == end ? 0 : start - innermost.begin();

    static_assert(sizeof(unsigned long long) == sizeof(void*));
    const std::size_t count =
        RtlCaptureStackBackTrace(static_cast<ULONG>(skipped), static_cast<ULONG>(maxFrames),
                                 reinterpret_cast<void**>(frames), &hash);
    // A null address is behind the outermost frame; the service has been seen to go on behind it
    // (in Wine 8), with addresses that mean nothing.
    return static_cast<std::size_t>(std::find(frames, frames + count, 0ULL) - frames);
}

bool runGuarded(void (*function)(void*), void* argument) noexcept {
    return threadUtilitiesGuardedCall(function, argument) == 0;
}

}  // namespace ThreadUtilities::platform
