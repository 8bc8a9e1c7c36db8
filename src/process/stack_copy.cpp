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

// The entries of the file, one a page.
bool hasContents(std::uint64_t entry) {
    constexpr std::uint64_t presentOrSwapped = std::uint64_t{3} << 62;
    return (entry & presentOrSwapped) != 0;
}

bool readEntries(int pageMap, std::uint64_t firstPage, std::span<std::uint64_t> entries) {
    const auto bytes = static_cast<long>(entries.size_bytes());
    return platform::kernelCall(SYS_pread64, pageMap, platform::argument(entries.data()), bytes,
                                static_cast<long>(firstPage * sizeof(std::uint64_t))) == bytes;
}

// The part of `range` around `address` whose pages have contents.
ReadableRange providedPart(int pageMap, ReadableRange range, std::uint64_t address) {
    std::array<std::uint64_t, largestStackCopy / memoryPageSize + 2> entries;
    const std::uint64_t firstPage = range.begin / memoryPageSize;
    const std::size_t count =
        std::min(pageEndOf(range.end) / memoryPageSize - firstPage, entries.size());
    if (!readEntries(pageMap, firstPage, std::span(entries).first(count))) {
        return range;  // a kernel without page map
    }
    const auto isProvided = [&](std::uint64_t page) {
        return hasContents(entries[page - firstPage]);
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

std::size_t providedBytes(int pageMap, std::uint64_t address, std::size_t size) noexcept {
    std::array<std::uint64_t, 64> entries;
    const std::uint64_t end = address + size < address ? UINT64_MAX : address + size;
    for (std::uint64_t at = pageOf(address); at < end;) {
        const auto some = std::span(entries).first(
            std::min<std::uint64_t>((end - at - 1) / memoryPageSize + 1, entries.size()));
        if (!readEntries(pageMap, at / memoryPageSize, some)) {
            return size;
        }
        const auto missing = std::find_if_not(some.begin(), some.end(), hasContents);
        at += static_cast<std::uint64_t>(missing - some.begin()) * memoryPageSize;
        if (missing != some.end()) {
            return at > address ? at - address : 0;
        }
    }
    return size;
}

}  // namespace ThreadUtilities::process
