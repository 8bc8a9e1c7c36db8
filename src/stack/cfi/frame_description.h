#pragma once

// Parsing `.eh_frame` and `.eh_frame_hdr` (Linux Standard Base Core 5.0, chapter 10.6).

#include <cstdint>

#include "foundation/checked_bytes.h"
#include "platform/thread_context.h"

namespace ThreadUtilities::cfi {

/// One FDE with what it needs of its CIE. The cursors point into the tables.
struct FrameDescription {
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
    const std::uint8_t* tableEnd = nullptr;  ///< end of the readable bytes that hold it all
};

enum class LookupResult { Found, NotCovered, Malformed };

/// Where a module's tables are; the ranges are readable.
struct UnwindTables {
    std::uint64_t header = 0;
    platform::ReadableRange headerBytes;  ///< from `header` on
    /// The readable stretch that holds `.eh_frame`. Its true end is not recorded anywhere: a
    /// terminator or the end of the stretch ends it.
    platform::ReadableRange frameBytes;
    std::uint64_t frames = 0;  ///< address of the first entry
};

/// The address of `.eh_frame` that an index header names; 0 when it is malformed.
std::uint64_t framesOfHeader(std::uint64_t header, platform::ReadableRange bytes) noexcept;

/// Finds the FDE that covers `address`: by the sorted index where the header has one, else entry
/// by entry.
LookupResult findFrameDescription(const UnwindTables& tables, std::uint64_t address,
                                  FrameDescription& description) noexcept;

/// Parses the FDE at `entry`. False when it or its CIE is malformed or uses what no x86-64
/// toolchain writes.
bool parseFrameDescription(platform::ReadableRange bytes, std::uint64_t entry,
                           FrameDescription& description) noexcept;

}  // namespace ThreadUtilities::cfi
