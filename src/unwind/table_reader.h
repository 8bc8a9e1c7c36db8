// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstdint>

#include "foundation/checked_bytes.h"
#include "unwind/address_space.h"

namespace ThreadUtilities::cfi {

/// Room for the copies of a lookup, of which the FDE and its CIE are used until
/// the row has been applied. An entry that does not fit counts as malformed.
struct TableCopies {
    std::uint8_t index[24];
    // In this order and without a gap: expressions of either end at the end of the whole.
    std::uint8_t cie[512];
    std::uint8_t fde[3584];
};

/// Where tables are read: the space that their modules are in, and room for copies, which is given
/// where modules may be unloaded meanwhile.
struct TableSource {
    const AddressSpace& space;
    TableCopies* copies = nullptr;
};

/// Gives the bytes of a module's unwind tables. Where the module stays loaded meanwhile they are
/// read in place, else through copies: it may vanish under the walk.
class TableReader {
 public:
    /// In place; both stay readable.
    TableReader(const AddressSpace& addressSpace, TableBytes headerBytes,
                TableBytes frameBytes) noexcept
        : space(addressSpace), header(headerBytes), frames(frameBytes) {}

    TableReader(const AddressSpace& addressSpace, TableCopies& room) noexcept
        : space(addressSpace), copies(&room) {}

    const AddressSpace& addressSpace() const noexcept { return space; }

    /// Some bytes of a table.
    struct Piece {
        ByteCursor bytes;
        std::uint64_t shift = 0;  ///< what a pointer of `bytes` lacks to the address it stands for

        std::uint64_t address() const noexcept {
            return reinterpret_cast<std::uint64_t>(bytes.data()) + shift;
        }
    };

    Piece index(std::uint64_t address) const noexcept {
        return copies == nullptr ? inPlace(header, address) : copied(copies->index, address);
    }
    Piece fde(std::uint64_t address) const noexcept {
        return copies == nullptr ? inPlace(frames, address) : copied(copies->fde, address);
    }
    Piece cie(std::uint64_t address) const noexcept {
        return copies == nullptr ? inPlace(frames, address) : copied(copies->cie, address);
    }

    /// Where the bytes end that FDEs, their CIEs and so their expressions lie in.
    const std::uint8_t* end() const noexcept {
        return copies == nullptr ? pointerTo(frames, frames.range.end)
                                 : copies->fde + sizeof(copies->fde);
    }

 private:
    static const std::uint8_t* pointerTo(const TableBytes& tables, std::uint64_t address) noexcept {
        return reinterpret_cast<const std::uint8_t*>(address + tables.shift);
    }

    static Piece inPlace(const TableBytes& tables, std::uint64_t address) noexcept {
        if (address < tables.range.begin || address > tables.range.end) {
            Piece outside;
            outside.bytes.fail();
            return outside;
        }
        return {{pointerTo(tables, address), pointerTo(tables, tables.range.end)},
                0 - tables.shift};
    }

    template <std::size_t Size>
    Piece copied(std::uint8_t (&room)[Size], std::uint64_t address) const noexcept {
        const std::size_t size = space.read(address, room, Size);
        return {ByteCursor(room, size), address - reinterpret_cast<std::uint64_t>(room)};
    }

    const AddressSpace& space;
    TableBytes header;
    TableBytes frames;
    TableCopies* copies = nullptr;
};

}  // namespace ThreadUtilities::cfi
