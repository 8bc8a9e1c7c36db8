#pragma once

// What a module's own bytes say about it: its extent and its build-id. (System V gABI, chapters
// "Object Files" and "Program Loading"; little-endian 64-bit objects only.)

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "foundation/checked_bytes.h"
#include "platform/modules.h"

namespace ThreadUtilities::platform {

constexpr std::uint64_t pageSize = 4096;

constexpr std::uint64_t pageOf(std::uint64_t address) noexcept {
    return address & ~(pageSize - 1);
}

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

/// Reads the file header and the program headers from the first bytes of an image. None when they
/// are no loadable object, or the program headers lie beyond these bytes (all usual linkers put
/// them right behind the file header).
std::optional<ElfImage> parseElfImage(ByteCursor start);

/// Finds the GNU build-id (note name "GNU", type 3) among the notes of one segment: its first 16
/// bytes, a shorter one filled up with zeros. `alignment` is the segment's: 8 pads notes to 8
/// bytes, everything else to 4. Allocates nothing, throws nothing.
std::optional<DebugGuid> findBuildId(ByteCursor notes, std::uint64_t alignment) noexcept;

}  // namespace ThreadUtilities::platform
