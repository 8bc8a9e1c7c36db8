#pragma once

// The capturer's side of capture requests.

#include "platform/linux/handler/capture_request.h"

namespace ThreadUtilities::platform {

/// One request from its posting to its end. Takes a slot and gives it back.
class PostedRequest {
 public:
    /// Posts a request to `threadId`; without a free slot the request is not posted.
    PostedRequest(unsigned int threadId, const ReadableRange& stackBounds, ContextVisitor visitor,
                  void* visitorState) noexcept;
    ~PostedRequest();
    PostedRequest(const PostedRequest&) = delete;
    PostedRequest& operator=(const PostedRequest&) = delete;

    [[nodiscard]] bool isPosted() const { return request_ != nullptr; }
    [[nodiscard]] bool isAnswered() const;
    /// What the visitor said; only once answered.
    [[nodiscard]] VisitorAnswer answer() const { return request_->answer; }

    /// Sleeps until the answer comes, for at most `timeout`; may return early.
    void sleep(const timespec& timeout);
    /// Takes the request back. If a handler has it already, waits for the handler's end, which
    /// is near: the visitor's work is bounded and the handler is not interrupted.
    /// Returns whether the request was taken back; if not, it is answered.
    bool cancel();

 private:
    [[nodiscard]] RequestWord word() const {
        return RequestWord(request_->word.load(std::memory_order_acquire));
    }

    std::size_t slot_ = 0;
    CaptureRequest* request_ = nullptr;
};

}  // namespace ThreadUtilities::platform
