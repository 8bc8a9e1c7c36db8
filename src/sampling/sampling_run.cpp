// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "sampling/sampling_run.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <exception>
#include <mutex>
#include <vector>

#include "platform/clock.h"

namespace ThreadUtilities {

bool SamplingRun::isOver() const {
    return stopRequested || platform::steadyNow() >= deadline;
}

void SamplingRun::failWithCurrentException() noexcept {
    requestStop();
    const std::lock_guard lock(registrationMutex);
    if (!failure) {
        failure = std::current_exception();
    }
    workerRegistered.notify_one();
}

SamplingRun::Visit SamplingRun::stampIfDue(unsigned int threadId,
                                           std::chrono::milliseconds interval) {
    const TimePoint now = platform::steadyNow();
    const auto [entry, isFirst] = lastSampleTime.try_emplace(threadId, now);
    const TimePoint due =
        isFirst ? now : saturatingAdd(entry->second, saturatingNanoseconds(interval));
    const Visit visit{now, due};
    if (visit.isDue()) {
        entry->second = now;
    }
    return visit;
}

void SamplingRun::addSample(unsigned int threadId, const std::vector<unsigned long long>& frames,
                            std::size_t frameCount) {
    ++totalSampleCount;
    const auto end = frames.cbegin() + static_cast<std::ptrdiff_t>(frameCount);
    root->add(threadId, Tree::FrameIterator(end), Tree::FrameIterator(frames.cbegin()));
}

unsigned int samplingParallelism() {
    return std::max(1u, platform::hardwareThreads() / 2);
}

}  // namespace ThreadUtilities
