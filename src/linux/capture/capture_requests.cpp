// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/capture/capture_requests.h"

#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <limits>
#include <span>

#include "linux/kernel_calls.h"
#include "linux/threads/task_folder.h"
#include "platform/fork_child.h"

namespace ThreadUtilities::platform {
namespace {

constexpr std::size_t noSlot = std::numeric_limits<std::size_t>::max();

// The lowest free slot, so that only as many pages are ever touched as there were captures at once.
std::size_t takeSlot() {
    for (std::size_t group = 0; group < captureRequests.used.size(); ++group) {
        auto& used = captureRequests.used[group];
        std::uint64_t bits = used.load(std::memory_order_relaxed);
        while (~bits != 0) {
            const std::uint64_t freeBit = ~bits & (bits + 1);
            if (used.compare_exchange_weak(bits, bits | freeBit, std::memory_order_acquire)) {
                return group * slotsPerWord + static_cast<std::size_t>(__builtin_ctzll(freeBit));
            }
        }
    }
    return noSlot;
}

void freeRequest(CaptureRequest& request) {
    const RequestWord old(request.word.load(std::memory_order_relaxed));
    request.word.store(old.nextFree().bits(), std::memory_order_release);
}

// The child has none of the threads that posted or were asked.
void forgetRequests() {
    for (std::size_t slot = 0; slot < requestSlots; ++slot) {
        auto& used = captureRequests.used[slot / slotsPerWord];
        if ((used.load(std::memory_order_relaxed) >> (slot % slotsPerWord) & 1) != 0) {
            freeRequest(captureRequests.slots[slot]);
            captureRequests.giveBack(slot);
        }
    }
}
RestartInForkChild forgetRequestsInForkChild(forgetRequests);

// A request that was abandoned to a thread which has ended since has no handler any more.
void takeBackFromEndedThreads() {
    for (std::size_t number = 0; number < requestSlots; ++number) {
        CaptureRequest& request = captureRequests.slots[number];
        std::uint32_t bits = request.word.load(std::memory_order_acquire);
        const unsigned int threadId = request.threadId.load(std::memory_order_relaxed);
        if (RequestWord(bits).phase() == RequestPhase::Abandoned &&
            !hasTask(static_cast<unsigned int>(kernelProcessId()), threadId) &&
            request.word.compare_exchange_strong(bits, RequestWord(bits).nextFree().bits(),
                                                 std::memory_order_acquire)) {
            captureRequests.giveBack(number);
        }
    }
}

std::size_t waitForSlot(VisitDeadline deadline) {
    for (;;) {
        const std::size_t number = takeSlot();
        if (number != noSlot || std::chrono::steady_clock::now() >= deadline) {
            return number;
        }
        takeBackFromEndedThreads();
        sleepFor(std::chrono::microseconds(50));
    }
}

void unmapRoom(CaptureRequest& request) {
    if (!request.mapping.empty()) {
        kernelCall(SYS_munmap, argument(request.mapping.data()),
                   static_cast<long>(request.mapping.size_bytes()));
        request.mapping = {};
    }
}

std::span<unsigned long long> mapRoom(std::size_t frames) {
    const long address =
        kernelCall(SYS_mmap, 0, static_cast<long>(frames * sizeof(unsigned long long)),
                   PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    constexpr long lowestError = -4095;
    if (lowestError <= address && address < 0) {
        return {};
    }
    return {reinterpret_cast<unsigned long long*>(address), frames};
}

}  // namespace

VisitSlot::VisitSlot(std::size_t framesOfCaller, VisitDeadline deadline) noexcept
    : number(waitForSlot(deadline)), wantedFrames(framesOfCaller) {
    if (number != noSlot) {
        request = &captureRequests.slots[number];
        clearRoom();  // a handler that ended late had to leave what was mapped
    }
}

VisitSlot::~VisitSlot() {
    if (request != nullptr) {
        unmapRoom(*request);
        captureRequests.giveBack(number);
    }
}

void VisitSlot::clearRoom() noexcept {
    unmapRoom(*request);
    request->room = {request->frames.data(), std::min(slotFrames, wantedFrames), 0};
    earlierFrames = 0;
}

void VisitSlot::keepFrames() noexcept {
    const VisitRoom& room = request->room;
    keptFrames = std::min(room.frameCount, stackCopySize / sizeof(*room.frames));
    std::memcpy(request->stackCopy.data(), room.frames, keptFrames * sizeof(*room.frames));
}

bool VisitSlot::growRoom() noexcept {
    constexpr std::size_t factor = 16;
    constexpr std::size_t mostFrames = std::size_t{1} << 28;
    VisitRoom& room = request->room;
    const std::size_t most = std::min(wantedFrames, mostFrames);
    if (room.capacity >= most) {
        return false;
    }
    const auto larger = mapRoom(std::min(most, room.capacity * factor));
    if (larger.empty()) {
        return false;
    }
    unmapRoom(*request);
    earlierFrames = std::min(slotFrames, wantedFrames);
    request->mapping = larger;
    room = {larger.data(), larger.size(), 0};
    return true;
}

std::size_t VisitSlot::copyFrames(std::span<unsigned long long> out) const noexcept {
    const VisitRoom& room = request->room;
    const std::size_t count = std::min(room.frameCount, out.size());
    std::copy_n(room.frames, count, out.data());
    return count;
}

std::size_t VisitSlot::copyEarlierFrames(std::span<unsigned long long> out) const noexcept {
    if (earlierFrames != 0) {
        std::copy_n(request->frames.data(), earlierFrames, out.data());
        return earlierFrames;
    }
    std::memcpy(out.data(), request->stackCopy.data(), keptFrames * sizeof(*out.data()));
    return keptFrames;
}

PostedRequest::PostedRequest(VisitSlot& visitSlot, const Question& question) noexcept
    : slot(visitSlot), request(*visitSlot.request) {
    request.threadId.store(question.threadId, std::memory_order_relaxed);
    request.visitor = question.visitor;
    request.stackBounds = question.stackBounds;
    request.mayCallSystem = question.mayCallSystem;
    request.word.store(word().with(RequestPhase::Posted).bits(), std::memory_order_release);
}

PostedRequest::~PostedRequest() {
    if (!cancel() && move(RequestPhase::Claimed, RequestPhase::Abandoned)) {
        slot.forget();
        return;
    }
    freeRequest(request);
}

void PostedRequest::sleep(const timespec& timeout) {
    std::uint32_t bits = request.word.load(std::memory_order_acquire);
    while (!RequestWord(bits).capturerSleeps()) {
        if (RequestWord(bits).phase() == RequestPhase::Done) {
            return;
        }
        const std::uint32_t sleeping = RequestWord(bits).withSleepingCapturer().bits();
        if (request.word.compare_exchange_weak(bits, sleeping, std::memory_order_acq_rel)) {
            bits = sleeping;
        }
    }
    futexWait(request.word, bits, timeout);
}

bool PostedRequest::move(RequestPhase from, RequestPhase to) {
    std::uint32_t bits = request.word.load(std::memory_order_acquire);
    while (RequestWord(bits).phase() == from) {
        if (request.word.compare_exchange_weak(bits, RequestWord(bits).with(to).bits(),
                                               std::memory_order_acq_rel)) {
            return true;
        }
    }
    return false;
}

bool PostedRequest::cancel() {
    return move(RequestPhase::Posted, RequestPhase::Free);
}

}  // namespace ThreadUtilities::platform
