#pragma once

// Walking a stack with the unwind tables that the compilers wrote. The build picks the
// definition: the library's own table interpreter (cfi/), or the system's unwinder.

#include <cstddef>

#include "platform/thread_context.h"

namespace ThreadUtilities {

/// Does what must not happen while a thread stands still: binds what the walks need of the
/// system. Called before every capture of another thread; nearly free after the first time.
void prepareFrameWalks() noexcept;

enum class WalkEnd {
    EndOfStack,       ///< a return address of 0 or a frame marked as the outermost
    FrameLimit,       ///< `maxFrames` entries are stored
    NoUnwindData,     ///< a frame other than the innermost lies in code without tables
    Unreadable,       ///< a stack word or a table that cannot be read, or makes no sense
    NoProgress,       ///< a step that would not lead outward
    UnknownRegister,  ///< a step needs a register that the context does not know
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
