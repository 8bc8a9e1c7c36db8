#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

namespace ThreadUtilities {

/// Captures threads of the calling process again and again, as a profiler does. The results are
/// those of `getStackTrace`, but what cannot have changed is not looked up again: the stack of a
/// thread that has not run since it was captured, and within a millisecond the answer to whether a
/// debugger is attached.
///
/// For one thread at a time. Allocates, though never while a thread stands still.
class CaptureSession {
 public:
    explicit CaptureSession(std::size_t maxFrames) : buffer(maxFrames) {}

    /// Captures one thread, which stands still meanwhile; returns the number of frames.
    std::size_t capture(unsigned int threadId);

    /// The frames of the last capture are the first entries, innermost first.
    const std::vector<unsigned long long>& frames() const { return buffer; }

 private:
    struct KnownStack {
        std::uint64_t runTime = 0;
        std::vector<unsigned long long> frames;
    };

    bool isDebuggerAttached();
    std::size_t captureAnew(unsigned int threadId);

    std::vector<unsigned long long> buffer;
    std::unordered_map<unsigned int, KnownStack> knownStacks;
    std::chrono::steady_clock::time_point debuggerAskedAt;
    bool debuggerIsKnown = false;
    bool debuggerAttached = false;
};

}  // namespace ThreadUtilities
