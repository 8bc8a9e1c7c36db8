// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The system's own unwinder, for systems that have one.

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/thread_context.h"

namespace ThreadUtilities::platform {

/// One stack of this process, unwound frame by frame. Holds all it needs in itself.
/// Context: the stack's thread stopped; no allocation, no lock, no log.
class FrameUnwinder {
 public:
    explicit FrameUnwinder(const Registers& start) noexcept;

    std::uint64_t programCounter() const noexcept;
    std::uint64_t stackPointer() const noexcept;

    /// Goes on to the caller of the current frame, by the unwind entry that covers the program
    /// counter. False when no entry covers it; nothing has changed then. Faults on a damaged stack,
    /// so it is called under `runGuarded`; after a fault the unwinder is of no more use.
    bool unwindFrame() noexcept;

    /// Leaves a frame whose return address is known.
    void returnTo(std::uint64_t address, std::uint64_t stackPointer) noexcept;

 private:
    struct State;
    State& state() noexcept;
    const State& state() const noexcept;

    alignas(16) std::array<std::byte, 1728> storage;
};

/// Stores up to `maxFrames` return addresses of the calling thread, innermost first, as the
/// system's own service finds them; returns their number. `from` is one of the first few, and the
/// list starts there.
std::size_t traceCallingThread(std::uint64_t from, unsigned long long* frames,
                               std::size_t maxFrames) noexcept;

/// Runs `function(argument)`. False when a fault ended it: nothing that happened inside is undone,
/// and destructors do not run, so it owns nothing. Costs a few nanoseconds when nothing happens.
bool runGuarded(void (*function)(void*), void* argument) noexcept;

}  // namespace ThreadUtilities::platform
