// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// The build-id that a module carries in its notes.

#include <elf.h>

#include <cstdint>
#include <optional>

#include "foundation/checked_bytes.h"
#include "linux/capture/handler/elf_headers.h"
#include "platform/modules.h"

namespace ThreadUtilities::platform {

/// Finds the GNU build-id (note name "GNU", type 3) among the notes of one segment: its first 16
/// bytes, a shorter one filled up with zeros. `alignment` is the segment's: 8 pads notes to 8
/// bytes, everything else to 4. Allocates nothing, throws nothing.
std::optional<DebugGuid> findBuildId(ByteCursor notes, std::uint64_t alignment) noexcept;

/// The build-id of an image with these program headers. `notesOf` gives the bytes of a segment of
/// notes, as far as they can be read, by its header.
template <class NotesOf>
std::optional<DebugGuid> buildIdOf(ByteCursor table, NotesOf notesOf) {
    while (!table.atEnd()) {
        const ProgramHeader header = takeProgramHeader(table);
        if (header.type == PT_NOTE) {
            if (const auto guid = findBuildId(notesOf(header), header.alignment)) {
                return guid;
            }
        }
    }
    return std::nullopt;
}

}  // namespace ThreadUtilities::platform
