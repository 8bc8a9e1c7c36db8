#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/memory.h"
#include "platform/thread_context.h"

namespace ThreadUtilities {

/// Reads words of a thread's memory that may not be there: directly where the memory is known to
/// be readable, through the system everywhere else.
///
/// Alternate signal stacks and coroutine stacks lie outside the known range. So that walking them
/// does not cost a system call a word, such reads fetch a window of the words that follow.
class StackWords {
 public:
    /// `shift` is added to an address in `readable` to find its word: not 0 for a copied stack.
    explicit StackWords(platform::ReadableRange readable, std::uint64_t shift = 0) noexcept
        : range(readable), rangeShift(shift) {}

    StackWords(const StackWords&) = delete;
    StackWords& operator=(const StackWords&) = delete;

    /// Whether all of [begin, end) may be read with `load`.
    bool covers(std::uint64_t begin, std::uint64_t end) const noexcept {
        return range.begin <= begin && end <= range.end;
    }

    /// The word at an address that is known to be readable. It may belong to a variable of another
    /// function, so the sanitizers' ideas of who may touch it do not apply.
    __attribute__((no_sanitize("address", "thread", "undefined"))) static std::uint64_t load(
        std::uint64_t address) noexcept {
        return *reinterpret_cast<const Word*>(address);
    }

    /// False, and `word` as it was, when the memory cannot be read.
    bool read(std::uint64_t address, std::uint64_t& word) noexcept {
        if (address <= UINT64_MAX - wordSize && covers(address, address + wordSize)) {
            word = load(address + rangeShift);
            return true;
        }
        return readWindow(address, word);
    }

 private:
    using Word [[gnu::may_alias, gnu::aligned(1)]] = std::uint64_t;
    static constexpr std::uint64_t wordSize = 8;
    static constexpr std::size_t windowSize = 256;

    [[gnu::noinline]] bool readWindow(std::uint64_t address, std::uint64_t& word) noexcept {
        if (windowBytes < wordSize || address < windowBegin ||
            address - windowBegin > windowBytes - wordSize) {
            windowBegin = address;
            windowBytes = platform::readOwnMemory(address, window, windowSize);
            if (windowBytes < wordSize) {
                return false;
            }
        }
        std::memcpy(&word, window + (address - windowBegin), wordSize);
        return true;
    }

    platform::ReadableRange range;
    std::uint64_t rangeShift;
    std::uint64_t windowBegin = 0;
    std::size_t windowBytes = 0;
    std::byte window[windowSize];
};

}  // namespace ThreadUtilities
