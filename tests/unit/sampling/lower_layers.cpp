// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "unit/sampling/lower_layers.h"

#include <ThreadUtilities/StackTrace.h>
#include <ThreadUtilities/Threads.h>

#include <algorithm>
#include <atomic>
#include <mutex>

#include "foundation/ascii.h"
#include "stack/frame_details.h"
#include "stack/stack_trace.h"

namespace ThreadUtilities {
namespace {

scripted::LowerLayers layers;
std::mutex issuedMutex;
std::vector<unsigned int> issued;
std::atomic<int> live = 0;

struct LiveMark {
    LiveMark() { ++live; }
    ~LiveMark() { --live; }
};

std::vector<unsigned int> threadsOf(unsigned int processId) {
    const auto entry = layers.threads.find(processId);
    return entry == layers.threads.end() ? std::vector<unsigned int>() : entry->second;
}

}  // namespace

namespace scripted {

LowerLayers& resetLowerLayers() {
    const std::lock_guard lock(issuedMutex);
    issued.clear();
    layers = LowerLayers();
    return layers;
}

std::vector<unsigned int> issuedThreadIds() {
    const std::lock_guard lock(issuedMutex);
    return issued;
}

int liveWorkers() {
    return live;
}

}  // namespace scripted

unsigned int getMainThreadId() {
    return layers.mainThreadId;
}

unsigned int getThreadId() {
    thread_local const LiveMark mark;
    const std::lock_guard lock(issuedMutex);
    issued.push_back(static_cast<unsigned int>(9001 + issued.size()));
    return issued.back();
}

std::vector<unsigned int> getThreadIds() {
    if (layers.onThreadList) {
        layers.onThreadList();
    }
    std::vector<unsigned int> threads = threadsOf(0);
    if (layers.showsWorkers) {
        const auto workers = scripted::issuedThreadIds();
        threads.insert(threads.begin(), workers.begin(), workers.end());
    }
    return threads;
}

std::vector<unsigned int> getThreadIds(unsigned int processId) {
    return threadsOf(processId);
}

std::string getThreadName(unsigned int threadId) {
    const auto entry = layers.names.find(threadId);
    return entry == layers.names.end() ? "" : entry->second;
}

void setThreadName(const std::string&) {}

unsigned long long getStackTrace(const unsigned int& threadId, unsigned long long* frames,
                                 unsigned long long maxFrames, bool) {
    const auto captured = layers.captureOwn(threadId);
    const auto count = std::min<std::size_t>(captured.size(), maxFrames);
    std::copy_n(captured.begin(), count, frames);
    return count;
}

bool CaptureSeries::isDebuggerAttached(std::chrono::milliseconds) noexcept {
    return false;
}

platform::Visit CaptureSeries::capture(platform::VisitRequest asked,
                                       std::span<unsigned long long> frames) {
    return {platform::VisitResult::Visited,
            static_cast<std::size_t>(
                getStackTrace(asked.threadId, frames.data(), frames.size(), asked.suspend))};
}

std::uint32_t announcedStarts() noexcept {
    return 0;
}

bool sleepUntilThreadStarts(std::uint32_t, std::chrono::steady_clock::time_point) noexcept {
    return false;
}

WideString describeFrame(unsigned int processId, unsigned long long address) {
    return wideFromAscii("frame " + std::to_string(processId) + "/" + std::to_string(address));
}

}  // namespace ThreadUtilities
