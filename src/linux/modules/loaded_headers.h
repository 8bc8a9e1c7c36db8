// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The program headers of a loaded module, as its loader knows them.

#include <link.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "foundation/checked_bytes.h"
#include "linux/capture/handler/elf_headers.h"
#include "platform/memory.h"

namespace ThreadUtilities::platform {

/// Where the headers lie, together with what lies behind them on their page: there linkers put the
/// notes.
struct HeaderPlace {
    explicit HeaderPlace(const dl_phdr_info& info) noexcept
        : begin(reinterpret_cast<std::uint64_t>(info.dlpi_phdr)),
          tableSize(std::size_t{info.dlpi_phnum} * sizeof(ElfW(Phdr))) {
        const std::size_t restOfPage = memoryPageSize - begin % memoryPageSize;
        constexpr std::size_t roomForNotes = 256;
        const std::size_t wanted = std::min(tableSize + roomForNotes, mostBytes);
        size = tableSize > mostBytes ? 0 : std::max(tableSize, std::min(restOfPage, wanted));
    }
    HeaderPlace() = default;

    static constexpr std::size_t mostBytes = 40 * sizeof(ElfW(Phdr));

    std::uint64_t begin = 0;
    std::size_t tableSize = 0;
    std::size_t size = 0;  ///< in all; 0 where there are more headers than any linker writes
};

/// A copy of a place, since a host may have taken the pages of the headers, which nobody needs
/// after loading, from everybody's sight.
class CopiedHeaders {
 public:
    CopiedHeaders(const HeaderPlace& place, const std::uint8_t* copy, std::size_t copied) noexcept
        : begin(place.begin), bytes(copy), size(copied), headers(copy, place.tableSize) {
        if (place.size == 0 || copied < place.tableSize) {
            headers.fail();
        }
    }

    ByteCursor table() const noexcept { return headers; }

    /// The bytes at an address of the process where they have been copied too; else failed.
    ByteCursor bytesAt(std::uint64_t address, std::uint64_t length) const noexcept {
        ByteCursor copied(bytes, size);
        if (address < begin) {
            copied.fail();
        } else {
            copied.seek(address - begin);
        }
        return copied.sub(length);
    }

 private:
    std::uint64_t begin;
    const std::uint8_t* bytes;
    std::size_t size;
    ByteCursor headers;
};

/// The same with its copy.
class LoadedHeaders {
 public:
    explicit LoadedHeaders(const dl_phdr_info& info) noexcept : LoadedHeaders(HeaderPlace(info)) {}

    LoadedHeaders(const LoadedHeaders&) = delete;
    LoadedHeaders& operator=(const LoadedHeaders&) = delete;

    ByteCursor table() const noexcept { return copy.table(); }
    ByteCursor bytesAt(std::uint64_t address, std::uint64_t length) const noexcept {
        return copy.bytesAt(address, length);
    }

 private:
    explicit LoadedHeaders(const HeaderPlace& place) noexcept
        : copy(place, bytes, readOwnMemory(place.begin, bytes, place.size)) {}

    std::uint8_t bytes[HeaderPlace::mostBytes];
    CopiedHeaders copy;
};

}  // namespace ThreadUtilities::platform
