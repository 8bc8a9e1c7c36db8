// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstdint>

#include "foundation/checked_bytes.h"
#include "platform/memory.h"
#include "platform/thread_context.h"

namespace ThreadUtilities::cfi {

/// Room for the copies of a lookup, of which the FDE and its CIE are used until
/// the row has been applied. An entry that does not fit counts as malformed.
struct TableCopies {
    std::uint8_t index[24];
    // In this order and without a gap: expressions of either end at the end of the whole.
    std::uint8_t cie[512];
    std::uint8_t fde[3584];
};

/// Gives the bytes of a module's unwind tables. Where the module stays loaded meanwhile they are
/// read in place, else through copies: it may vanish under the walk.
class TableReader {
 public:
    /// In place; both ranges stay readable.
    TableReader(platform::ReadableRange headerBytes, platform::ReadableRange frameBytes) noexcept
        : headerRange(headerBytes), frameRange(frameBytes) {}

    explicit TableReader(TableCopies& room) noexcept : copies(&room) {}

    /// Some bytes of a table.
    struct Piece {
        ByteCursor bytes;
        std::uint64_t shift = 0;  ///< what a pointer of `bytes` lacks to the address it stands for

        std::uint64_t address() const noexcept {
            return reinterpret_cast<std::uint64_t>(bytes.data()) + shift;
        }
    };

    Piece index(std::uint64_t address) const noexcept {
        return copies == nullptr ? inPlace(headerRange, address) : copied(copies->index, address);
    }
    Piece fde(std::uint64_t address) const noexcept {
        return copies == nullptr ? inPlace(frameRange, address) : copied(copies->fde, address);
    }
    Piece cie(std::uint64_t address) const noexcept {
        return copies == nullptr ? inPlace(frameRange, address) : copied(copies->cie, address);
    }

    /// Where the bytes end that FDEs, their CIEs and so their expressions lie in.
    const std::uint8_t* end() const noexcept {
        return copies == nullptr ? reinterpret_cast<const std::uint8_t*>(frameRange.end)
                                 : copies->fde + sizeof(copies->fde);
    }

 private:
    static Piece inPlace(platform::ReadableRange range, std::uint64_t address) noexcept {
        if (address < range.begin || address > range.end) {
            Piece outside;
            outside.bytes.fail();
            return outside;
        }
        return {{reinterpret_cast<const std::uint8_t*>(address),
                 reinterpret_cast<const std::uint8_t*>(range.end)}};
    }

    template <std::size_t Size>
    static Piece copied(std::uint8_t (&room)[Size], std::uint64_t address) noexcept {
        const std::size_t size = platform::readOwnMemory(address, room, Size);
        return {ByteCursor(room, size), address - reinterpret_cast<std::uint64_t>(room)};
    }

    platform::ReadableRange headerRange;
    platform::ReadableRange frameRange;
    TableCopies* copies = nullptr;
};

}  // namespace ThreadUtilities::cfi
