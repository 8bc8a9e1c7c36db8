// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The capturer's side of capture requests.

#include "linux/capture/handler/capture_request.h"

namespace ThreadUtilities::platform {

/// One slot of the table, for as long as this lives: room for one visit.
class VisitSlot {
 public:
    /// Waits for a free slot until `deadline`. `wantedFrames` is what the caller has room for.
    VisitSlot(std::size_t wantedFrames, VisitDeadline deadline) noexcept;
    ~VisitSlot();
    VisitSlot(const VisitSlot&) = delete;
    VisitSlot& operator=(const VisitSlot&) = delete;

    [[nodiscard]] bool isTaken() const { return request_ != nullptr; }
    [[nodiscard]] VisitRoom& room() { return request_->room; }
    [[nodiscard]] std::span<std::byte> scratch() { return request_->scratch; }
    [[nodiscard]] std::span<std::byte> stackCopy() { return request_->stackCopy; }

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
    void forget() { request_ = nullptr; }

    std::size_t number_ = 0;
    CaptureRequest* request_ = nullptr;
    std::size_t wantedFrames_;
    std::size_t earlierFrames_ = 0;  ///< in the slot's own room, since that has grown
    std::size_t keptFrames_ = 0;
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

    PostedRequest(VisitSlot& slot, const Question& question) noexcept;
    /// A request that no handler has finished is taken back or left to its handler, with its slot.
    ~PostedRequest();
    PostedRequest(const PostedRequest&) = delete;
    PostedRequest& operator=(const PostedRequest&) = delete;

    [[nodiscard]] bool isAnswered() const { return word().phase() == RequestPhase::Done; }
    [[nodiscard]] bool isClaimed() const { return word().phase() == RequestPhase::Claimed; }
    /// What the visitor said; only once answered.
    [[nodiscard]] VisitorAnswer answer() const { return request_.answer; }

    /// Sleeps until the answer comes, for at most `timeout`; may return early. Nobody wakes the
    /// sleeper where the handler may not call the system.
    void sleep(const timespec& timeout);
    /// Takes the request back; false when a handler has it.
    bool cancel();

 private:
    [[nodiscard]] RequestWord word() const {
        return RequestWord(request_.word.load(std::memory_order_acquire));
    }
    bool move(RequestPhase from, RequestPhase to);

    VisitSlot& slot_;
    CaptureRequest& request_;
};

}  // namespace ThreadUtilities::platform
