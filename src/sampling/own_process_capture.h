#pragma once

#include <ThreadUtilities/StackTrace.h>

#include <cstddef>
#include <vector>

namespace ThreadUtilities {

/// How a worker captures the threads of the calling process: the one place that knows. Each
/// worker has its own.
class OwnProcessCapture {
 public:
    explicit OwnProcessCapture(std::size_t maxFrames) : buffer(maxFrames) {}

    /// Captures one thread, which stands still meanwhile; returns the number of frames.
    std::size_t operator()(unsigned int threadId) {
        return static_cast<std::size_t>(
            getStackTrace(threadId, buffer.data(), buffer.size(), true));
    }

    /// The frames of the last capture are the first entries.
    const std::vector<unsigned long long>& frames() const { return buffer; }

 private:
    std::vector<unsigned long long> buffer;
};

}  // namespace ThreadUtilities
