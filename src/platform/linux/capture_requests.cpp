#include "platform/linux/capture_requests.h"

#include <limits>

#include "platform/linux/kernel_calls.h"
#include "platform/process_copy.h"

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

void giveSlotBack(std::size_t slot) {
    const std::uint64_t bit = std::uint64_t{1} << (slot % slotsPerWord);
    captureRequests.used[slot / slotsPerWord].fetch_and(~bit, std::memory_order_release);
}

void freeRequest(CaptureRequest& request) {
    const RequestWord old(request.word.load(std::memory_order_relaxed));
    request.word.store(old.nextFree().bits(), std::memory_order_release);
}

// The copy has none of the threads that posted or were asked.
void forgetRequests() {
    for (std::size_t slot = 0; slot < requestSlots; ++slot) {
        auto& used = captureRequests.used[slot / slotsPerWord];
        if ((used.load(std::memory_order_relaxed) >> (slot % slotsPerWord) & 1) != 0) {
            freeRequest(captureRequests.slots[slot]);
            giveSlotBack(slot);
        }
    }
}
RestartInCopy forgetRequestsInCopy(forgetRequests);

}  // namespace

PostedRequest::PostedRequest(unsigned int threadId, const ReadableRange& stackBounds,
                             ContextVisitor visitor, void* visitorState) noexcept
    : slot_(takeSlot()) {
    if (slot_ == noSlot) {
        return;
    }
    request_ = &captureRequests.slots[slot_];
    request_->threadId.store(threadId, std::memory_order_relaxed);
    request_->visitor = visitor;
    request_->visitorState = visitorState;
    request_->stackBounds = stackBounds;
    request_->word.store(word().with(RequestPhase::Posted).bits(), std::memory_order_release);
}

PostedRequest::~PostedRequest() {
    if (request_ != nullptr) {
        cancel();
        freeRequest(*request_);
        giveSlotBack(slot_);
    }
}

bool PostedRequest::isAnswered() const {
    return word().phase() == RequestPhase::Done;
}

void PostedRequest::sleep(const timespec& timeout) {
    std::uint32_t bits = request_->word.load(std::memory_order_acquire);
    while (!RequestWord(bits).capturerSleeps()) {
        if (RequestWord(bits).phase() == RequestPhase::Done) {
            return;
        }
        const std::uint32_t sleeping = RequestWord(bits).withSleepingCapturer().bits();
        if (request_->word.compare_exchange_weak(bits, sleeping, std::memory_order_acq_rel)) {
            bits = sleeping;
        }
    }
    futexWait(request_->word, bits, timeout);
}

bool PostedRequest::cancel() {
    std::uint32_t bits = request_->word.load(std::memory_order_acquire);
    while (RequestWord(bits).phase() == RequestPhase::Posted) {
        const std::uint32_t cancelled = RequestWord(bits).with(RequestPhase::Free).bits();
        if (request_->word.compare_exchange_weak(bits, cancelled, std::memory_order_acq_rel)) {
            return true;
        }
    }
    constexpr timespec aMoment{0, 10'000'000};
    while (word().phase() == RequestPhase::Claimed) {
        sleep(aMoment);
    }
    return word().phase() != RequestPhase::Done;
}

}  // namespace ThreadUtilities::platform
