// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "linux/capture/handler/module_identity.h"

#include <elf.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <span>

#include "foundation/checked_bytes.h"
#include "linux/capture/handler/elf_headers.h"
#include "linux/kernel_calls.h"

namespace ThreadUtilities::platform {
namespace {

/// The file header, a dozen program headers and the notes behind them; then the end of the index of
/// the unwind tables, with the tables that follow it on its page. The last entries of the index say
/// where functions and their entries lie, therefore they differ when one before them has grown.
constexpr std::size_t startSize = 896;
constexpr std::size_t indexSize = 384;
constexpr std::size_t lookSize = startSize + indexSize;

/// The first 16 bytes of the note of a build-id, but for the size of the id.
constexpr std::uint32_t ownerSize = 4;
constexpr std::uint64_t typeAndOwner = NT_GNU_BUILD_ID | std::uint64_t{0x00554E47} << 32;
constexpr std::uint64_t noteHeaderSize = 16;
/// Shorter ids are no hash of the contents; somebody chose them.
constexpr std::uint32_t minIdSize = 8;
constexpr std::uint32_t maxIdSize = 64;

/// Where the build-id of a module was found last: its begin, and in the low bits the offset. One
/// word, so that nothing can be torn; a hint, because the note is looked at again.
std::atomic<std::uint64_t> noteHints[64];

/// Where the index ended, which is looked up once for each module: the number of the module's first
/// page, and the number of entries. A wrong one only gives the module another identity.
std::atomic<std::uint64_t> indexHints[64];

std::atomic<std::uint64_t>& hintOf(std::atomic<std::uint64_t> (&hints)[64],
                                   std::uint64_t begin) noexcept {
    return hints[begin * 0x9E3779B97F4A7C15 >> 58];
}

/// How many bytes the index at `unwindHeader` takes; of one in an unusual form, its header.
std::uint64_t indexLength(std::uint64_t begin, std::uint64_t unwindHeader) noexcept {
    constexpr std::uint32_t usualForm = 0x3B031B01;
    constexpr unsigned countBits = 28;
    constexpr std::uint64_t countMask = (std::uint64_t{1} << countBits) - 1;
    constexpr std::uint64_t headerSize = 12;
    constexpr std::uint64_t entrySize = 8;
    const std::uint64_t module = begin / memoryPageSize << countBits;
    std::atomic<std::uint64_t>& hint = hintOf(indexHints, begin);
    std::uint64_t known = hint.load(std::memory_order_relaxed);
    if (module == 0 || (known & ~countMask) != module) {
        std::uint8_t header[headerSize]{};
        readOwnMemory(unwindHeader, header, sizeof(header));
        const bool isUsual = loadLittleEndian<std::uint32_t>(header) == usualForm;
        known = module | (isUsual ? loadLittleEndian<std::uint32_t>(header + 8) & countMask : 0);
        hint.store(known, std::memory_order_relaxed);
    }
    return headerSize + (known & countMask) * entrySize;
}

/// Where the bytes begin that are looked at of an index. They end on the page where it does, so
/// that what can be read of it can all be read.
std::uint64_t indexLook(std::uint64_t begin, std::uint64_t unwindHeader) noexcept {
    const std::uint64_t end = unwindHeader + indexLength(begin, unwindHeader);
    const std::uint64_t lookEnd = std::min(end + indexSize / 2, pageOf(end - 1) + memoryPageSize);
    return std::max(unwindHeader, lookEnd - indexSize);
}

bool isBuildIdAt(const std::uint8_t* bytes, std::size_t offset) noexcept {
    if (offset > startSize - noteHeaderSize ||
        loadLittleEndian<std::uint64_t>(bytes + offset + 8) != typeAndOwner ||
        loadLittleEndian<std::uint32_t>(bytes + offset) != ownerSize) {
        return false;
    }
    const auto idSize = loadLittleEndian<std::uint32_t>(bytes + offset + 4);
    return minIdSize <= idSize && idSize <= maxIdSize &&
           idSize <= startSize - noteHeaderSize - offset;
}

/// Notes lie at multiples of 4, and nothing else in a module's start looks like this one.
bool hasBuildId(std::uint64_t begin, const std::uint8_t* bytes) noexcept {
    std::atomic<std::uint64_t>& hint = hintOf(noteHints, begin);
    const std::uint64_t known = hint.load(std::memory_order_relaxed);
    if (pageOf(known) == begin && isBuildIdAt(bytes, known - begin)) {
        return true;
    }
    for (std::size_t offset = fileHeaderSize; offset < startSize; offset += 4) {
        if (isBuildIdAt(bytes, offset)) {
            hint.store(begin + offset, std::memory_order_relaxed);
            return true;
        }
    }
    return false;
}

__extension__ using Product = unsigned __int128;

std::uint64_t mixed(std::uint64_t left, std::uint64_t right) noexcept {
    const Product product = Product{left} * right;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

/// Four lanes, so that one multiplication need not wait for another.
std::uint64_t hashOf(const std::array<std::uint8_t, lookSize>& bytes) noexcept {
    static_assert(lookSize % 64 == 0);
    std::uint64_t lanes[4] = {0x9E3779B97F4A7C15, 0xD6E8FEB86659FD93, 0xA0761D6478BD642F,
                              0xE7037ED1A0B428DB};
    for (std::size_t block = 0; block < lookSize; block += 64) {
        for (std::size_t lane = 0; lane < 4; ++lane) {
            const std::uint8_t* const words = bytes.data() + block + lane * 16;
            lanes[lane] = mixed(lanes[lane] ^ loadLittleEndian<std::uint64_t>(words),
                                0x8EBC6AF09C88C6E3 ^ loadLittleEndian<std::uint64_t>(words + 8));
        }
    }
    return mixed(lanes[0] ^ lanes[1], lanes[2] ^ lanes[3]) ^ lanes[0] ^ lanes[3];
}

/// How many of the pages from `first` on can be read, up to 64.
std::uint64_t readablePages(std::uint64_t first, std::uint64_t count) noexcept {
    constexpr std::uint64_t mostPages = 64;
    std::uint8_t bytes[mostPages];
    iovec pages[mostPages];
    count = std::min(count, mostPages);
    for (std::uint64_t index = 0; index < count; ++index) {
        pages[index] = {reinterpret_cast<void*>(first + index * memoryPageSize), 1};
    }
    const iovec here[] = {{bytes, sizeof(bytes)}};
    return copyMemory(kernelProcessId(), std::span(pages).first(count), here);
}

/// What can be read from the page of `address` on, by trying: up to 4 MiB.
[[gnu::noinline]] ReadableRange probedRange(std::uint64_t begin, std::uint64_t end,
                                            std::uint64_t address) noexcept {
    if (address < begin || address >= end) {
        return {};
    }
    ReadableRange range{pageOf(address), pageOf(address)};
    for (int calls = 0; calls < 16 && range.end < end; ++calls) {
        const std::uint64_t wanted = (end - range.end + memoryPageSize - 1) / memoryPageSize;
        const std::uint64_t found = readablePages(range.end, wanted);
        range.end += found * memoryPageSize;
        if (found < std::min<std::uint64_t>(wanted, 64)) {
            break;
        }
    }
    return range;
}

/// By the program headers, where they stand as linkers write them.
[[gnu::noinline]] ReadableRange segmentByHeaders(std::uint64_t begin, std::uint64_t end,
                                                 std::uint64_t address) noexcept {
    std::uint8_t start[startSize];
    const std::size_t size =
        readOwnMemory(begin, start, std::min<std::uint64_t>(startSize, end - begin));
    ByteCursor file(start, size);
    const auto place = findProgramHeaders(file);
    if (!place) {
        return {};
    }
    file.seek(place->fileOffset);
    const ByteCursor table = file.sub(place->size);
    const auto extent = extentOf(table);
    if (!extent) {
        return {};
    }
    const std::uint64_t bias = begin - extent->begin;
    const ReadableRange segment = readableSegmentOf(table, address - bias);
    if (!isWithin(segment.begin + bias, segment.end - segment.begin, begin, end)) {
        return {};
    }
    return {segment.begin + bias, segment.end + bias};
}

}  // namespace

// Not inlined: the copy must not be on the stack of a thread that walks itself.
[[gnu::noinline]] std::uint64_t moduleIdentity(std::uint64_t begin, std::uint64_t size,
                                               std::uint64_t unwindHeader) noexcept {
    std::array<std::uint8_t, lookSize> bytes;
    if (size < lookSize || !isWithin(unwindHeader, indexSize, begin, begin + size)) {
        return 0;
    }
    const std::uint64_t index = indexLook(begin, unwindHeader);
    if (!isWithin(index, indexSize, begin, begin + size)) {
        return 0;
    }
    const iovec there[] = {{reinterpret_cast<void*>(begin), startSize},
                           {reinterpret_cast<void*>(index), indexSize}};
    const iovec here[] = {{bytes.data(), lookSize}};
    if (copyMemory(kernelProcessId(), there, here) != lookSize ||
        !hasBuildId(begin, bytes.data())) {
        return 0;
    }
    return mixed(hashOf(bytes) ^ begin, 0xD6E8FEB86659FD93 ^ unwindHeader) | 1;
}

ReadableRange mappedSegment(std::uint64_t begin, std::uint64_t size,
                            std::uint64_t address) noexcept {
    const ReadableRange segment = segmentByHeaders(begin, begin + size, address);
    return segment.begin < segment.end ? segment : probedRange(begin, begin + size, address);
}

}  // namespace ThreadUtilities::platform
