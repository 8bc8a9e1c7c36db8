// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// What a capturing thread asks of a running one, and the rules by which the two sides meet.
//
// Requests live in static slots that are never freed, because the signal that announces one can
// arrive after its capturer has given up, returned and ended. A slot's word says who owns it:
//
//     Free --post--> Posted --claim--> Claimed --complete--> Done --release--> Free
//                      \----cancel----> Free  \--abandon--> Abandoned --complete--> Free
//
// The capturer posts, cancels, abandons and releases, the handler claims and completes. All are
// compare-exchanges on the same word and that word holds the slot's generation as well; therefore
// of claim and cancel, and of abandon and complete, exactly one wins, and a handler that comes with
// an older generation changes nothing. Everything that a handler reads or writes lies in the slot.
// Whoever moves it to Free for good (the capturer, or the handler of an abandoned request) takes it
// out of use; therefore a handler that is late, frozen, or left by a jump never writes to what
// belongs to somebody else.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/thread_context.h"

namespace ThreadUtilities::platform {

enum class RequestPhase : std::uint32_t { Free, Posted, Claimed, Done, Abandoned };

/// Phase, generation and the capturer's wish to be woken, in the 32 bits that a futex can wait on.
/// 2^28 generations pass before a handler that was left, and goes on after all, could take another
/// request for the one that it had claimed.
class RequestWord {
 public:
    constexpr RequestWord() = default;
    constexpr explicit RequestWord(std::uint32_t bits) : value(bits) {}
    constexpr RequestWord(RequestPhase phase, std::uint32_t generation)
        : value(static_cast<std::uint32_t>(phase) | (generation << generationShift)) {}

    constexpr RequestPhase phase() const { return static_cast<RequestPhase>(value & phaseMask); }
    constexpr std::uint32_t generation() const { return value >> generationShift; }
    constexpr bool capturerSleeps() const { return (value & sleepsBit) != 0; }
    constexpr RequestWord with(RequestPhase phase) const {
        return RequestWord((value & ~phaseMask) | static_cast<std::uint32_t>(phase));
    }
    constexpr RequestWord withSleepingCapturer() const { return RequestWord(value | sleepsBit); }
    constexpr RequestWord nextFree() const { return {RequestPhase::Free, generation() + 1}; }
    constexpr std::uint32_t bits() const { return value; }

 private:
    static constexpr std::uint32_t phaseMask = 7;
    static constexpr std::uint32_t sleepsBit = 8;
    static constexpr std::uint32_t generationShift = 4;
    std::uint32_t value = 0;
};

inline constexpr std::size_t slotFrames = 256;
inline constexpr std::size_t stackCopySize = 4096;

struct alignas(64) CaptureRequest {
    std::atomic<std::uint32_t> word{0};
    /// Read by every handler that looks for requests to its thread, hence atomic; it belongs to
    /// the generation that a claim confirms.
    std::atomic<std::uint32_t> threadId{0};
    // From here on: written before posting, read after claiming.
    ContextVisitor visitor = nullptr;
    ReadableRange stackBounds;  ///< of the thread's own stack; empty when unknown
    bool mayCallSystem = false;
    // Written between claim and completion, read after it.
    std::uintptr_t handlerFrame = 0;
    std::uintptr_t handlerStack = 0;  ///< the alternate stack's begin, if it stands on one
    VisitorAnswer answer = VisitorAnswer::Enough;
    VisitRoom room;
    /// More room than the slot has itself; stays with the slot until its next user.
    std::span<unsigned long long> mapping;
    alignas(64) std::array<std::byte, visitScratchSize> scratch;
    std::array<unsigned long long, slotFrames> frames;
    /// Of a thread's stack, for the capturer.
    std::array<std::byte, stackCopySize> stackCopy;
};

// Only pages of slots that were ever in use at once take memory.
inline constexpr std::size_t requestSlots = 128;
inline constexpr std::size_t slotsPerWord = 64;

/// The slots, and one bit for each that is in use.
struct RequestTable {
    std::array<CaptureRequest, requestSlots> slots;
    std::array<std::atomic<std::uint64_t>, requestSlots / slotsPerWord> used;

    void giveBack(std::size_t number) noexcept {
        const std::uint64_t bit = std::uint64_t{1} << (number % slotsPerWord);
        used[number / slotsPerWord].fetch_and(~bit, std::memory_order_release);
    }
};

extern constinit RequestTable captureRequests;

}  // namespace ThreadUtilities::platform
