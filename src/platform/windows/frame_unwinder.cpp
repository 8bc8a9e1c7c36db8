#include "platform/frame_unwinder.h"

#include <windows.h>

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
    static_assert(sizeof(State) <= sizeof(storage_) && alignof(State) <= 16);
    static_assert(std::is_trivially_destructible_v<State>);
    setRegisters((new (storage_.data()) State{})->context, start);
}

FrameUnwinder::State& FrameUnwinder::state() noexcept {
    return *std::launder(reinterpret_cast<State*>(storage_.data()));
}

const FrameUnwinder::State& FrameUnwinder::state() const noexcept {
    return *std::launder(reinterpret_cast<const State*>(storage_.data()));
}

std::uint64_t FrameUnwinder::instructionPointer() const noexcept {
    return state().context.Rip;
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

void FrameUnwinder::returnFromLeaf() noexcept {
    CONTEXT& context = state().context;
    context.Rip = *reinterpret_cast<const volatile std::uint64_t*>(context.Rsp);
    context.Rsp += sizeof(std::uint64_t);
}

bool runGuarded(void (*function)(void*), void* argument) noexcept {
    return threadUtilitiesGuardedCall(function, argument) == 0;
}

}  // namespace ThreadUtilities::platform
