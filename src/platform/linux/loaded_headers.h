// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The program headers of a loaded module, as its loader knows them.

#include <link.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "foundation/checked_bytes.h"
#include "platform/linux/elf_headers.h"
#include "platform/memory.h"

namespace ThreadUtilities::platform {

/// A copy, since a host may have taken the pages of the headers, which nobody needs after loading,
/// from everybody's sight. Of a module with more headers than any linker writes there is none.
class LoadedHeaders {
 public:
    explicit LoadedHeaders(const dl_phdr_info& info) noexcept
        : begin(reinterpret_cast<std::uint64_t>(info.dlpi_phdr)) {
        const std::size_t tableSize = std::size_t{info.dlpi_phnum} * sizeof(ElfW(Phdr));
        if (tableSize > sizeof(bytes)) {
            headers.fail();
            return;
        }
        // Together with what lies behind them on their page: there linkers put the notes.
        const std::size_t restOfPage = pageSize - begin % pageSize;
        size =
            readOwnMemory(begin, bytes, std::max(tableSize, std::min(restOfPage, sizeof(bytes))));
        headers = ByteCursor(bytes, tableSize);
        if (size < tableSize) {
            headers.fail();
        }
    }

    LoadedHeaders(const LoadedHeaders&) = delete;
    LoadedHeaders& operator=(const LoadedHeaders&) = delete;

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
    std::size_t size = 0;
    ByteCursor headers;
    std::uint8_t bytes[40 * sizeof(ElfW(Phdr))];
};

}  // namespace ThreadUtilities::platform
