// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstdint>

#include "foundation/checked_bytes.h"

namespace ThreadUtilities::cfi {

/// Pointer encodings (LSB 5.0, section 10.5.1): a format in the low four bits, what it is relative
/// to in the next three.
namespace encoding {
inline constexpr std::uint8_t absolute = 0x00;
inline constexpr std::uint8_t uleb128 = 0x01;
inline constexpr std::uint8_t unsigned16 = 0x02;
inline constexpr std::uint8_t unsigned32 = 0x03;
inline constexpr std::uint8_t unsigned64 = 0x04;
inline constexpr std::uint8_t sleb128 = 0x09;
inline constexpr std::uint8_t signed16 = 0x0A;
inline constexpr std::uint8_t signed32 = 0x0B;
inline constexpr std::uint8_t signed64 = 0x0C;
inline constexpr std::uint8_t formatMask = 0x0F;

inline constexpr std::uint8_t relativeToSelf = 0x10;
inline constexpr std::uint8_t relativeToData = 0x30;
inline constexpr std::uint8_t relationMask = 0x70;

inline constexpr std::uint8_t indirect = 0x80;
inline constexpr std::uint8_t omitted = 0xFF;
}  // namespace encoding

/// Reads the number of an encoded pointer without what it is relative to; fails the cursor for a
/// format that does not exist.
inline std::uint64_t readEncodedNumber(ByteCursor& bytes, std::uint8_t encoded) noexcept {
    switch (encoded & encoding::formatMask) {
        case encoding::absolute:
        case encoding::unsigned64:
        case encoding::signed64:
            return bytes.read<std::uint64_t>();
        case encoding::uleb128:
            return bytes.uleb128();
        case encoding::unsigned16:
            return bytes.read<std::uint16_t>();
        case encoding::unsigned32:
            return bytes.read<std::uint32_t>();
        case encoding::sleb128:
            return static_cast<std::uint64_t>(bytes.sleb128());
        case encoding::signed16:
            return static_cast<std::uint64_t>(std::int64_t{bytes.read<std::int16_t>()});
        case encoding::signed32:
            return static_cast<std::uint64_t>(std::int64_t{bytes.read<std::int32_t>()});
        default:
            bytes.fail();
            return 0;
    }
}

/// Reads an encoded pointer. `shift` is what the cursor's pointers lack to the addresses they
/// stand for, `dataBase` what data-relative pointers count from. Fails the cursor
/// for relations that no x86-64 table has, and for indirect pointers, whose target may lie
/// anywhere.
inline std::uint64_t readEncodedPointer(ByteCursor& bytes, std::uint8_t encoded,
                                        std::uint64_t shift, std::uint64_t dataBase = 0) noexcept {
    const std::uint64_t place = reinterpret_cast<std::uint64_t>(bytes.data()) + shift;
    const std::uint64_t number = readEncodedNumber(bytes, encoded);
    switch (encoded & (encoding::relationMask | encoding::indirect)) {
        case encoding::absolute:
            return number;
        case encoding::relativeToSelf:
            return place + number;
        case encoding::relativeToData:
            return dataBase + number;
        default:
            bytes.fail();
            return 0;
    }
}

}  // namespace ThreadUtilities::cfi
