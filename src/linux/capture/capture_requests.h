// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The capturer's side of capture requests.

#include "linux/capture/handler/capture_request.h"

namespace ThreadUtilities::platform {

/// One slot of the table, for as long as this lives: room for one visit.
class VisitSlot {
 public:
    /// Waits for a free slot until `deadline`. `framesOfCaller` is what the caller has room for.
    VisitSlot(std::size_t framesOfCaller, VisitDeadline deadline) noexcept;
    ~VisitSlot();
    VisitSlot(const VisitSlot&) = delete;
    VisitSlot& operator=(const VisitSlot&) = delete;

    bool isTaken() const { return request != nullptr; }
    VisitRoom& room() { return request->room; }
    std::span<std::byte> scratch() { return request->scratch; }
    std::span<std::byte> stackCopy() { return request->stackCopy; }

    /// Makes the room what it was at first, for another way of visiting the thread.
    void clearRoom() noexcept;
    /// What the visitor has found is true though not all: it will be the answer if no other way
    /// gives one. Uses the room of `stackCopy`.
    void keepFrames() noexcept;
    /// After a visitor found too little room: makes more, of which it has found nothing yet. False
    /// when it has as much as was wanted, or there is no memory; the room is as it was then.
    bool growRoom() noexcept;
    /// Copies what the visitor found, and returns its count.
    std::size_t copyFrames(std::span<unsigned long long> out) const noexcept;
    /// The same for what had been found before the room first grew, or else for what was kept.
    std::size_t copyEarlierFrames(std::span<unsigned long long> out) const noexcept;

 private:
    friend class PostedRequest;
    /// Leaves the slot to a handler that has not finished.
    void forget() { request = nullptr; }

    std::size_t number = 0;
    CaptureRequest* request = nullptr;
    std::size_t wantedFrames;
    std::size_t earlierFrames = 0;  ///< in the slot's own room, since that has grown
    std::size_t keptFrames = 0;
};

/// One request from its posting to its end.
class PostedRequest {
 public:
    /// What the handler has to know.
    struct Question {
        unsigned int threadId = 0;
        ContextVisitor visitor = nullptr;
        ReadableRange stackBounds;
        bool mayCallSystem = false;
    };

    PostedRequest(VisitSlot& visitSlot, const Question& question) noexcept;
    /// A request that no handler has finished is taken back or left to its handler, with its slot.
    ~PostedRequest();
    PostedRequest(const PostedRequest&) = delete;
    PostedRequest& operator=(const PostedRequest&) = delete;

    bool isAnswered() const { return word().phase() == RequestPhase::Done; }
    bool isClaimed() const { return word().phase() == RequestPhase::Claimed; }
    /// What the visitor said; only once answered.
    VisitorAnswer answer() const { return request.answer; }

    /// Sleeps until the answer comes, for at most `timeout`; may return early. Nobody wakes the
    /// sleeper where the handler may not call the system.
    void sleep(const timespec& timeout);
    /// Takes the request back; false when a handler has it.
    bool cancel();

 private:
    RequestWord word() const { return RequestWord(request.word.load(std::memory_order_acquire)); }
    bool move(RequestPhase from, RequestPhase to);

    VisitSlot& slot;
    CaptureRequest& request;
};

}  // namespace ThreadUtilities::platform
