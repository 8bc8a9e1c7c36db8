// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Walking a stack with the unwind tables that the compilers wrote: by the library's own engine,
// or by the unwinder of a system that has one (windows/frame_walk.cpp).

#include <cstddef>

#include "platform/thread_context.h"

namespace ThreadUtilities {

/// Does what must not happen while a thread is stopped: binds what the walks need of the
/// system. Called before every capture of another thread; nearly free after the first time.
void prepareFrameWalks() noexcept;

/// Makes the search for which a walk ended with `WalkEnd::LongSearch`. True when a walk was waiting
/// for it and will get farther now. Up to a tenth of a second, and never while a thread stands
/// still.
bool searchForWalks() noexcept;

enum class WalkEnd {
    EndOfStack,       ///< a return address of 0 or a frame marked as the outermost
    FrameLimit,       ///< `maxFrames` entries are stored
    NoUnwindData,     ///< a frame other than the innermost lies in code without tables
    Unreadable,       ///< a stack word or a table that cannot be read, or makes no sense
    NoProgress,       ///< a step that would not lead outward
    UnknownRegister,  ///< a step needs a register that the context does not know
    NoReturnAddress,  ///< what a step led to is no address behind a call; it is not stored
    LongSearch,       ///< a table without an index would have to be searched for long
};

struct WalkResult {
    std::size_t frameCount = 0;  ///< entries stored, whatever the end
    WalkEnd end = WalkEnd::EndOfStack;
};

/// Walks from `context` outward and stores up to `maxFrames` return addresses, innermost first.
/// The address at which the thread stands is not stored.
/// Context: target stopped, or signal handler on the target thread; no allocation, no lock, no log.
WalkResult walkThread(const platform::ThreadContext& context, unsigned long long* frames,
                      std::size_t maxFrames) noexcept;

/// The same for the calling thread. Entry 0 is the return address into the caller of this
/// function.
std::size_t walkCallingThread(unsigned long long* frames, std::size_t maxFrames) noexcept;

}  // namespace ThreadUtilities
