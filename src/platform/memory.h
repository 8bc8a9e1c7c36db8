// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// This process's memory as the library's own unwinder reads it, which may turn out not to be
// mapped. A system whose own unwinder is used defines no function of these.

#include <cstddef>
#include <cstdint>

namespace ThreadUtilities::platform {

/// A stretch of memory, [begin, end), that can be read without a fault for as long as the one who
/// names it says. Empty when nothing is known.
struct ReadableRange {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
};

/// Copies up to `size` bytes that begin at `address` of the calling process. Returns how many
/// bytes were copied from the front: fewer than `size`, possibly 0, where the memory beyond is
/// not readable. Never faults. No allocation, no lock; safe while the thread whose memory it is
/// is stopped, and in a signal handler.
std::size_t readOwnMemory(std::uint64_t address, void* out, std::size_t size) noexcept;

/// The system protects and gives memory in pages of this size.
inline constexpr std::uint64_t memoryPageSize = 4096;

/// Where the page begins that `address` lies on.
constexpr std::uint64_t pageOf(std::uint64_t address) noexcept {
    return address & ~(memoryPageSize - 1);
}

/// Where the page ends that the last byte before `end` lies on.
constexpr std::uint64_t pageEndOf(std::uint64_t end) noexcept {
    return pageOf(end + memoryPageSize - 1);
}

/// Whether the 8 bytes at `address`, which may lie on two pages, can be read at this moment: a
/// promise only where nobody takes the memory away in the next; what is true of one byte is true of
/// its page. An eighth of the price of a copy. False as well where the system does not tell. No
/// allocation, no lock; in a signal handler too.
bool isReadableNow(std::uint64_t address) noexcept;

}  // namespace ThreadUtilities::platform
