#pragma once

// The system's own unwinder, for systems that have one.

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/thread_context.h"

namespace ThreadUtilities::platform {

/// One stack of this process, unwound frame by frame. Holds all it needs in itself: no allocation.
///
/// What stands on a stack may be damaged, so every member may fault; whoever uses an unwinder does
/// it under `runGuarded`.
class FrameUnwinder {
 public:
    explicit FrameUnwinder(const Registers& start) noexcept;

    std::uint64_t instructionPointer() const noexcept;

    /// Goes on to the caller of the current frame, by the unwind entry that covers the instruction
    /// pointer. False when no entry covers it; nothing has changed then.
    bool unwindFrame() noexcept;

    /// Goes on to the caller of a function without unwind entry, which by the rules of the system
    /// has not moved the stack pointer: the return address is the word that it points to.
    void returnFromLeaf() noexcept;

 private:
    struct State;
    State& state() noexcept;
    const State& state() const noexcept;

    alignas(16) std::array<std::byte, 1728> storage_;
};

/// Stores up to `maxFrames` return addresses of the calling thread, innermost first, from the
/// return address into the caller of this function on, as the system's own service finds them;
/// returns their number.
std::size_t traceCallingThread(unsigned long long* frames, std::size_t maxFrames) noexcept;

/// Runs `function(argument)`. False when a fault ended it: nothing that happened inside is undone,
/// and what the function owned is lost, so it owns nothing.
bool runGuarded(void (*function)(void*), void* argument) noexcept;

}  // namespace ThreadUtilities::platform
