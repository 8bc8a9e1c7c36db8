// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/memory.h"
#include "unwind/address_space.h"

namespace ThreadUtilities {

/// Reads words of a thread's memory that may not be there.
///
/// *Which reads are direct.* Those of pages that are known to be readable, and no others: a stack
/// may hold pages that its owner has protected (the guards of coroutine stacks laid inside of it),
/// and a damaged chain of frames leads anywhere. The walk begins with what the context names, and
/// asks for each further page of the thread's own stack, once, two pages at a time.
/// Because that stack is nobody else's and its owner is stopped, a page found readable stays so.
///
/// Alternate signal stacks, coroutine stacks and garbage lie outside of the own stack, where
/// another thread may unmap a page between the answer and the read: such words are copied by the
/// system, with a window of the words that follow, so that it is not one call a word.
class StackWords {
 public:
    /// All of `readable` can be read. `shift` is added to an address in it to find its word: not 0
    /// for a copied stack. Words outside are read unless `mayGoBeyond` is false.
    StackWords(const cfi::AddressSpace& addressSpace, platform::ReadableRange readable,
               std::uint64_t shift = 0, bool mayGoBeyond = true) noexcept
        : space(addressSpace),
          known(readable),
          stack(readable),
          rangeShift(shift),
          mayCallSystem(mayGoBeyond) {}

    /// The pages of `ownStack` are to be asked for, apart from `readable`.
    StackWords(const cfi::AddressSpace& addressSpace, platform::ReadableRange ownStack,
               platform::ReadableRange readable, bool systemMayBeCalled) noexcept
        : space(addressSpace), known(readable), stack(ownStack), mayCallSystem(systemMayBeCalled) {}

    StackWords(const StackWords&) = delete;
    StackWords& operator=(const StackWords&) = delete;

    /// Whether all of [begin, end) may be read with `load`.
    bool covers(std::uint64_t begin, std::uint64_t end) const noexcept {
        return known.begin <= begin && end <= known.end;
    }
    /// Where what may be read with `load` ends.
    std::uint64_t readableEnd() const noexcept { return known.end; }

    /// Makes all up to `end` readable with `load`, if it can, and takes nothing away.
    [[gnu::noinline]] bool extendTo(std::uint64_t end) noexcept {
        if (end > stack.end || end < known.end || end - known.end > farthestExtension) {
            return false;
        }
        return askUpTo(known, end);
    }

    /// Takes as readable up to `end` what was found so before.
    void trustTo(std::uint64_t end) noexcept { known.end = end; }

    /// Whether a page of the stack was found that cannot be read.
    bool metProtectedPage() const noexcept { return metProtected; }

    /// Whether words were wanted outside of what is readable.
    bool wentBeyond() const noexcept { return isBeyond; }

    /// The word at an address that is known to be readable. It may belong to a variable of another
    /// function, so the sanitizers' ideas of who may touch it do not apply.
    __attribute__((no_sanitize("address", "thread", "undefined"))) static std::uint64_t load(
        std::uint64_t address) noexcept {
        return *reinterpret_cast<const Word*>(address);
    }

    /// False, and `word` as it was, when the memory cannot be read.
    bool read(std::uint64_t address, std::uint64_t& word) noexcept {
        if (address > UINT64_MAX - wordSize) {
            return false;
        }
        if (covers(address, address + wordSize) || askFor(address)) {
            word = load(address + rangeShift);
            return true;
        }
        return readWindow(address, word);
    }

 private:
    using Word [[gnu::may_alias, gnu::aligned(1)]] = std::uint64_t;
    static constexpr std::uint64_t wordSize = 8;
    static constexpr std::uint64_t pageSize = platform::memoryPageSize;
    static constexpr std::uint64_t farthestExtension = 8 * pageSize;
    static constexpr std::size_t windowSize = 256;

    /// Adds pages above `range` until it reaches `end`. Asks in the middle of two pages, unless
    /// both are not wanted, or the one that is not bars the other.
    bool askUpTo(platform::ReadableRange& range, std::uint64_t end) noexcept {
        if (!mayCallSystem) {
            return false;
        }
        while (range.end < end) {
            const std::uint64_t next = platform::pageOf(range.end) + pageSize;
            if (next + pageSize <= stack.end && space.isReadableNow(next - wordSize / 2)) {
                range.end = next + pageSize;
            } else if (space.isReadableNow(next - wordSize)) {
                range.end = next;
            } else {
                metProtected = true;
                return false;
            }
        }
        return true;
    }

    /// Makes the word at `address` readable with `load`, if it can. What was readable so farther
    /// off may have to be asked for again: a walk does not return to it.
    [[gnu::noinline]] bool askFor(std::uint64_t address) noexcept {
        const std::uint64_t end = address + wordSize;
        if (address < stack.begin || end > stack.end) {
            return false;
        }
        if (address >= known.begin && extendTo(end)) {
            return true;
        }
        platform::ReadableRange range{platform::pageOf(address), platform::pageOf(address)};
        if (!askUpTo(range, end)) {
            return false;
        }
        if (range.begin <= known.begin && known.begin <= range.end) {
            range.end = std::max(range.end, known.end);
        }
        known = range;
        return true;
    }

    [[gnu::noinline]] bool readWindow(std::uint64_t address, std::uint64_t& word) noexcept {
        isBeyond = true;
        if (!mayCallSystem) {
            return false;
        }
        if (windowBytes < wordSize || address < windowBegin ||
            address - windowBegin > windowBytes - wordSize) {
            windowBegin = address;
            windowBytes = space.read(address, window, windowSize);
            if (windowBytes < wordSize) {
                return false;
            }
        }
        std::memcpy(&word, window + (address - windowBegin), wordSize);
        return true;
    }

    const cfi::AddressSpace& space;
    platform::ReadableRange known;
    platform::ReadableRange stack;
    std::uint64_t rangeShift = 0;
    bool mayCallSystem = true;
    bool metProtected = false;
    bool isBeyond = false;
    std::uint64_t windowBegin = 0;
    std::size_t windowBytes = 0;
    std::byte window[windowSize];
};

}  // namespace ThreadUtilities
