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
#include "sampling/call_tree.h"

namespace ThreadUtilities {

bool SamplingRun::isOver() const {
    return isOver(platform::steadyNow());
}

bool SamplingRun::isOver(TimePoint now) const {
    return stopRequested || now >= deadline;
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
    return stampIfDue(threadId, interval, platform::steadyNow());
}

SamplingRun::Visit SamplingRun::stampIfDue(unsigned int threadId,
                                           std::chrono::milliseconds interval, TimePoint now) {
    const auto [entry, isFirst] = lastSampleTime.try_emplace(threadId, now);
    const TimePoint due =
        isFirst ? now : saturatingAdd(entry->second, saturatingNanoseconds(interval));
    Visit visit{now, due, due};
    if (visit.isDue()) {
        if (now > saturatingAdd(lastStamp, stampWidth)) {
            lastStamp = now;
        }
        entry->second = lastStamp;
        visit.nextDue = saturatingAdd(lastStamp, saturatingNanoseconds(interval));
    }
    return visit;
}

void SamplingRun::addSample(unsigned int threadId, const std::vector<unsigned long long>& frames,
                            std::size_t frameCount, unsigned long long times) {
    totalSampleCount += times;
    const auto end = frames.cbegin() + static_cast<std::ptrdiff_t>(frameCount);
    addSamples(*root->findOrCreateChild(threadId), Tree::FrameIterator(end),
               Tree::FrameIterator(frames.cbegin()), times);
}

unsigned int samplingParallelism() {
    return std::max(1u, platform::hardwareThreads() / 2);
}

}  // namespace ThreadUtilities
