// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The headers of a loadable object, wherever its bytes were read from. (System V gABI, chapters
// "Object Files" and "Program Loading"; little-endian 64-bit objects only.) Nothing here allocates
// or throws.

#include <cstddef>
#include <cstdint>
#include <optional>

#include "foundation/checked_bytes.h"
#include "platform/memory.h"

namespace ThreadUtilities::platform {

/// Bytes of the file header.
constexpr std::size_t fileHeaderSize = 64;
/// Where the program headers lie in the file, which may be anywhere: tools that rewrite an object
/// append a new table.
struct ProgramHeaderTable {
    std::uint64_t fileOffset = 0;
    std::uint64_t size = 0;  ///< bytes
};

/// Reads the file header, with which an image begins. None when it is that of no loadable object.
std::optional<ProgramHeaderTable> findProgramHeaders(ByteCursor fileHeader) noexcept;

struct ProgramHeader {
    std::uint32_t type = 0;
    std::uint32_t flags = 0;
    std::uint64_t fileOffset = 0;
    std::uint64_t address = 0;
    std::uint64_t fileSize = 0;
    std::uint64_t memorySize = 0;
    std::uint64_t alignment = 0;
};

/// The next entry of a table; the cursor fails at its end.
ProgramHeader takeProgramHeader(ByteCursor& table) noexcept;

/// What a table says of the image as a whole, in the addresses that the table uses.
struct ImageExtent {
    std::uint64_t begin = 0;  ///< of the first page that the loader maps
    std::uint64_t end = 0;    ///< of the last
};
std::optional<ImageExtent> extentOf(ByteCursor table) noexcept;

/// The part of the image that can be read around `address`, both in the table's addresses; empty
/// when there is none.
ReadableRange readableSegmentOf(ByteCursor table, std::uint64_t address) noexcept;

}  // namespace ThreadUtilities::platform
