// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "process/stack_copy.h"

#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "linux/kernel_calls.h"
#include "platform/memory.h"

namespace ThreadUtilities::process {

using platform::memoryPageSize;
using platform::pageEndOf;
using platform::pageOf;
using platform::ReadableRange;

namespace {

constexpr std::uint64_t redZone = 128;

// The part of `range` around `address` whose pages have contents.
ReadableRange providedPart(int pageMap, ReadableRange range, std::uint64_t address) {
    constexpr std::uint64_t presentOrSwapped = std::uint64_t{3} << 62;
    std::array<std::uint64_t, largestStackCopy / memoryPageSize + 2> entries;
    const std::uint64_t firstPage = range.begin / memoryPageSize;
    const std::size_t count =
        std::min(pageEndOf(range.end) / memoryPageSize - firstPage, entries.size());
    const auto bytes = static_cast<long>(count * sizeof(std::uint64_t));
    if (platform::kernelCall(SYS_pread64, pageMap, platform::argument(entries.data()), bytes,
                             static_cast<long>(firstPage * sizeof(std::uint64_t))) != bytes) {
        return range;  // a kernel without page map
    }
    const auto isProvided = [&](std::uint64_t page) {
        return (entries[page - firstPage] & presentOrSwapped) != 0;
    };
    std::uint64_t page = address / memoryPageSize;
    if (!isProvided(page)) {
        return {};
    }
    if (page > firstPage && !isProvided(firstPage)) {
        range.begin = pageOf(address);
    }
    while (page < firstPage + count && isProvided(page)) {
        ++page;
    }
    range.end = std::min(range.end, page * memoryPageSize);
    return range;
}

}  // namespace

ReadableRange copyStack(unsigned int threadId, int pageMap, std::uint64_t stackPointer,
                        std::span<std::byte> room) noexcept {
    constexpr std::uint64_t userSpaceEnd = std::uint64_t{1} << 56;
    if (stackPointer < memoryPageSize || stackPointer >= userSpaceEnd) {
        return {};
    }
    ReadableRange range{stackPointer - redZone, stackPointer - redZone + room.size()};
    if (pageMap >= 0) {
        range = providedPart(pageMap, range, stackPointer);
    }
    if (range.begin == range.end) {
        return {};
    }
    const iovec there[] = {
        {reinterpret_cast<void*>(range.begin), static_cast<std::size_t>(range.end - range.begin)}};
    const iovec here[] = {{room.data(), room.size()}};
    range.end = range.begin + platform::copyMemory(static_cast<int>(threadId), there, here);
    return range.begin == range.end ? ReadableRange{} : range;
}

}  // namespace ThreadUtilities::process
