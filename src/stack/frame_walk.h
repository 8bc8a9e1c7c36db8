#pragma once

// Walking a stack with the unwind tables that the compilers wrote. The build picks the
// definition: the library's own table interpreter (cfi/), or the system's unwinder.

#include <cstddef>

#include "platform/thread_context.h"

namespace ThreadUtilities {

/// Does what must not happen while a thread stands still: binds what the walks need of the
/// system. Called before every capture of another thread; nearly free after the first time.
void prepareFrameWalks() noexcept;

/// Walks from `context` outward and stores up to `maxFrames` return addresses, innermost first;
/// returns their number. The address at which the thread stands is not stored.
/// Context: target stopped, or signal handler on the target thread; no allocation, no lock, no log.
std::size_t walkThread(const platform::ThreadContext& context, unsigned long long* frames,
                       std::size_t maxFrames) noexcept;

/// The same for the calling thread. Entry 0 is the return address into the caller of this
/// function.
std::size_t walkCallingThread(unsigned long long* frames, std::size_t maxFrames) noexcept;

}  // namespace ThreadUtilities
