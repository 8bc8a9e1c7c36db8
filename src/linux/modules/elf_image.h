// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// What the headers and notes of a module say about it: its extent and its build-id.

#include <cstdint>
#include <optional>
#include <vector>

#include "foundation/checked_bytes.h"
#include "platform/modules.h"

namespace ThreadUtilities::platform {

/// One note segment. Its bytes lie at `imageOffset` from the image's base in memory, and at
/// `fileOffset` in the file.
struct NoteSegment {
    std::uint64_t imageOffset = 0;
    std::uint64_t fileOffset = 0;
    std::uint64_t size = 0;
    std::uint64_t alignment = 4;
};

struct ElfImage {
    std::uint64_t size = 0;  ///< from the first to the last page that the loader maps
    std::vector<NoteSegment> notes;
};

/// None when the program headers are those of no loadable object.
std::optional<ElfImage> parseElfImage(ByteCursor table);

/// Finds the GNU build-id (note name "GNU", type 3) among the notes of one segment: its first 16
/// bytes, a shorter one filled up with zeros. `alignment` is the segment's: 8 pads notes to 8
/// bytes, everything else to 4. Allocates nothing, throws nothing.
std::optional<DebugGuid> findBuildId(ByteCursor notes, std::uint64_t alignment) noexcept;

}  // namespace ThreadUtilities::platform
