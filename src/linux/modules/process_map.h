// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The text form of a process's memory map (proc(5), /proc/pid/maps).

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ThreadUtilities::platform {

/// One line of the map: the range [begin, end) and what stands behind it.
struct MappedRange {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
    std::uint64_t fileOffset = 0;
    std::uint64_t inode = 0;
    bool isExecutable = false;
    std::string_view name;  ///< as the text has it; empty for memory without a file
};

/// The well-formed lines of a map, in their order; the names point into `text`. A line that is
/// damaged, and a last one that is cut off, is left out.
std::vector<MappedRange> parseProcessMap(std::string_view text);

/// What the map, and links of the kernel's, write behind the name of a file that has lost it.
constexpr std::string_view deletedMark = " (deleted)";
bool isMarkedDeleted(std::string_view name) noexcept;

/// The path of a mapped file: the map writes a line feed as "\012". With `isDeleted`, the mark of
/// a deleted file at the end is none of it.
std::string mappedFilePath(std::string_view name, bool isDeleted);

}  // namespace ThreadUtilities::platform
