// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Parsing `.eh_frame` and `.eh_frame_hdr` (Linux Standard Base Core 5.0, chapter 10.6).

#include <cstdint>

#include "foundation/checked_bytes.h"
#include "unwind/table_reader.h"

namespace ThreadUtilities::cfi {

/// One FDE with what it needs of its CIE. The cursors point into what the reader gave.
struct Fde {
    std::uint64_t codeBegin = 0;
    std::uint64_t codeEnd = 0;
    std::uint64_t codeAlignment = 1;
    std::int64_t dataAlignment = 1;
    std::uint64_t returnAddressColumn = 0;
    std::uint8_t pointerEncoding = 0;
    /// The frame of a signal trampoline: its return address is where the signal struck.
    bool isSignalFrame = false;
    ByteCursor initialInstructions;
    ByteCursor instructions;
    std::uint64_t instructionShift = 0;      ///< from their pointers to their addresses
    const std::uint8_t* tableEnd = nullptr;  ///< end of the bytes that expressions may lie in
};

enum class LookupResult {
    Found,
    NotCovered,
    Malformed,
    LongSearch,  ///< not among the first entries of a table without an index
};

/// Entries that are looked at one by one while a thread is stopped, some microseconds, and
/// outside.
inline constexpr unsigned mostEntriesWhileHeld = 128;
inline constexpr unsigned maxScannedEntries = 1 << 16;

/// The address of `.eh_frame` that the index header at `header` names; 0 when it is malformed.
std::uint64_t framesOfHeader(const TableReader& reader, std::uint64_t header) noexcept;

/// Looks at up to `mostEntries` entries from `frames` on for the FDE that covers `address`, which
/// stands at `found`. The true end of `.eh_frame` is not recorded anywhere: a terminator or
/// the end of what can be read ends it.
LookupResult scanEntries(const TableReader& reader, std::uint64_t frames, std::uint64_t address,
                         unsigned mostEntries, Fde& fde, std::uint64_t& found) noexcept;

/// Finds the FDE that covers `address`: by the sorted index where the header has one, else among
/// the first entries, or by what a longer search outside has found.
LookupResult findFde(const TableReader& reader, std::uint64_t header, std::uint64_t frames,
                     std::uint64_t address, Fde& fde) noexcept;

/// Parses the FDE at `entry`. False when it or its CIE is malformed or uses what no x86-64
/// toolchain writes.
bool parseFde(const TableReader& reader, std::uint64_t entry, Fde& fde) noexcept;

}  // namespace ThreadUtilities::cfi
