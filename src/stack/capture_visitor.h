#pragma once

// The step of a capture that looks at the other thread's context.

#include <array>
#include <cstddef>

#include "platform/thread_context.h"

namespace ThreadUtilities {

/// Where the frames of one capture go, and how many there are. A walk whose context may turn out
/// untrue goes into `provisional` first, so that a longer one before it leaves no entries in
/// `frames` behind the end of the one that counts.
struct FrameCollection {
    static constexpr std::size_t provisionalFrames = 256;

    unsigned long long* frames = nullptr;
    std::size_t maxFrames = 0;
    std::size_t frameCount = 0;
    bool isProvisional = false;
    std::array<unsigned long long, provisionalFrames> provisional;
};

/// A `platform::ContextVisitor`; `collection` is a `FrameCollection`.
/// Context: may be a signal handler on the visited thread; no allocation, no lock, no log.
platform::VisitorAnswer collectFrames(const platform::ThreadContext& context,
                                      void* collection) noexcept;

}  // namespace ThreadUtilities
