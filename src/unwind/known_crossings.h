// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/memory.h"

namespace ThreadUtilities::cfi {

/// Where walks of threads' own stacks crossed into pages that were found readable, so that a
/// question, which costs more than the whole walk, is asked once for each such place.
///
/// *Why an answer is still true.* A crossing is named by the code, the stack pointer and the page
/// that it leaves, and it is one of a frame that lies on both sides. Either that frame is a true
/// one: then its owner needs the page when the frame returns, therefore has not taken it away. Or
/// it is damage, and was the same damage when the page was found readable: then the answer is old
/// if the host has protected the page in between. Hosts that protect pages of stacks are told by
/// the first page that is found so, in any walk; from then on nothing here is believed. What is
/// left is damage that was walked once before the host's very first protected page is met, in that
/// page. Steps by a frame pointer, which damage reaches most easily, ask each time; so do walks of
/// other threads, to which a question is little beside what else they cost.
///
/// Each entry is one word; a lost update is a cache miss.
class KnownCrossings {
 public:
    struct Crossing {
        std::uint64_t instructionPointer;
        std::uint64_t stackPointer;
        std::uint64_t from;  ///< where the readable part ended
    };

    /// Where the readable part ends after the crossing; `from` when it is not known.
    std::uint64_t endAfter(const Crossing& crossing) const noexcept {
        const std::uint64_t key = keyOf(crossing);
        const std::uint64_t entry = entryOf(key).load(std::memory_order_relaxed);
        const bool isKnown =
            (entry & ~pagesMask) == (key & ~pagesMask) && !isOff.load(std::memory_order_relaxed);
        return crossing.from + (isKnown ? (entry & pagesMask) * platform::memoryPageSize : 0);
    }

    void learn(const Crossing& crossing, std::uint64_t end) noexcept {
        const std::uint64_t pages = (end - crossing.from) / platform::memoryPageSize;
        if (pages <= pagesMask && crossing.from % platform::memoryPageSize == 0) {
            const std::uint64_t key = keyOf(crossing);
            entryOf(key).store((key & ~pagesMask) | pages, std::memory_order_relaxed);
        }
    }

    void turnOff() noexcept { isOff.store(true, std::memory_order_relaxed); }

 private:
    static constexpr std::uint64_t pagesMask = 0xF;
    static constexpr unsigned indexBits = 10;

    static std::uint64_t keyOf(const Crossing& crossing) noexcept {
        std::uint64_t key = crossing.instructionPointer * 0x9E3779B97F4A7C15;
        key = (key ^ key >> 32 ^ crossing.stackPointer) * 0xD6E8FEB86659FD93;
        return (key ^ key >> 32 ^ crossing.from) * 0xA0761D6478BD642F;
    }

    const std::atomic<std::uint64_t>& entryOf(std::uint64_t key) const noexcept {
        return entries[key >> (64 - indexBits)];
    }
    std::atomic<std::uint64_t>& entryOf(std::uint64_t key) noexcept {
        return entries[key >> (64 - indexBits)];
    }

    std::array<std::atomic<std::uint64_t>, std::size_t{1} << indexBits> entries{};
    std::atomic<bool> isOff{false};
};

}  // namespace ThreadUtilities::cfi
