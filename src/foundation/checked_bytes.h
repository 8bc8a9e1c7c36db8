// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#pragma once

// Reading bytes that somebody else wrote: unwind tables, notes, process records.

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <string_view>
#include <type_traits>

namespace ThreadUtilities {

/// Sum of an address and a length; none where it leaves the 64-bit address space.
constexpr std::optional<std::uint64_t> checkedAdd(std::uint64_t address,
                                                  std::uint64_t length) noexcept {
    if (length > std::numeric_limits<std::uint64_t>::max() - address) {
        return std::nullopt;
    }
    return address + length;
}

/// An address moved by a signed offset; none where it leaves the 64-bit address space.
constexpr std::optional<std::uint64_t> checkedOffset(std::uint64_t address,
                                                     std::int64_t offset) noexcept {
    const std::uint64_t moved = address + static_cast<std::uint64_t>(offset);
    if ((offset < 0) != (moved < address)) {
        return std::nullopt;
    }
    return moved;
}

/// The lowest multiple of `alignment` (a power of two) that is not below `value`; none where that
/// would be beyond 64 bits.
constexpr std::optional<std::uint64_t> checkedAlignUp(std::uint64_t value,
                                                      std::uint64_t alignment) noexcept {
    const auto raised = checkedAdd(value, alignment - 1);
    return raised ? std::optional(*raised & ~(alignment - 1)) : std::nullopt;
}

/// Whether [address, address + length) lies in [begin, end); true for an empty piece at the end.
constexpr bool isWithin(std::uint64_t address, std::uint64_t length, std::uint64_t begin,
                        std::uint64_t end) noexcept {
    return begin <= address && address <= end && length <= end - address;
}

/// The little-endian number at `bytes`, which must have room for it.
template <std::integral Number>
constexpr Number loadLittleEndian(const std::uint8_t* bytes) noexcept {
    if (std::endian::native == std::endian::little && !std::is_constant_evaluated()) {
        Number value;
        std::memcpy(&value, bytes, sizeof(value));
        return value;
    }
    std::uint64_t value = 0;
    for (std::size_t index = 0; index < sizeof(Number); ++index) {
        value |= std::uint64_t{bytes[index]} << (8 * index);
    }
    return static_cast<Number>(value);
}

/// A cursor over a stretch of bytes that never reads outside it.
///
/// A read that does not fit, or a number that does not fit its type, makes the cursor fail for
/// good: it then stands at the end, reads give 0, and `ok` is false. A parser may therefore read
/// all fields of a record and ask once. Copies are independent.
///
/// The bytes must stay readable for as long as the cursor is used. Allocates nothing, throws
/// nothing, keeps no state elsewhere: usable in a signal handler. Numbers are little-endian.
class ByteCursor {
 public:
    constexpr ByteCursor() noexcept = default;

    /// Precondition: `begin <= end`, both in (or at the end of) one stretch of bytes.
    constexpr ByteCursor(const std::uint8_t* begin, const std::uint8_t* end) noexcept
        : start(begin), current(begin), stop(end) {}

    ByteCursor(const void* bytes, std::size_t size) noexcept
        : ByteCursor(static_cast<const std::uint8_t*>(bytes),
                     static_cast<const std::uint8_t*>(bytes) + size) {}

    /// False from the first failed read on.
    constexpr bool ok() const noexcept { return !failed; }
    constexpr bool atEnd() const noexcept { return current == stop; }

    /// Bytes from the start of the stretch to the next one read.
    constexpr std::size_t position() const noexcept {
        return static_cast<std::size_t>(current - start);
    }
    constexpr std::size_t remaining() const noexcept {
        return static_cast<std::size_t>(stop - current);
    }

    /// Where the next byte is read from. For addresses that are written relative to their own
    /// place; not for reading.
    constexpr const std::uint8_t* data() const noexcept { return current; }

    constexpr void fail() noexcept {
        current = stop;
        failed = true;
    }

    /// The next number of `sizeof(Number)` bytes.
    template <std::integral Number>
    constexpr Number read() noexcept {
        if (remaining() < sizeof(Number)) {
            fail();
            return 0;
        }
        const Number value = loadLittleEndian<Number>(current);
        current += sizeof(Number);
        return value;
    }

    /// Unsigned LEB128 (DWARF 5, section 7.6) of at most 64 significant bits.
    constexpr std::uint64_t uleb128() noexcept {
        std::uint64_t value = 0;
        for (unsigned shift = 0;; shift += 7) {
            const auto byte = read<std::uint8_t>();
            const std::uint64_t bits = byte & 0x7F;
            if (!ok() || (shift < 64 ? (bits << shift >> shift) != bits : bits != 0)) {
                fail();
                return 0;
            }
            value |= shift < 64 ? bits << shift : 0;
            if ((byte & 0x80) == 0) {
                return value;
            }
        }
    }

    /// Signed LEB128 of at most 64 significant bits, sign included.
    constexpr std::int64_t sleb128() noexcept {
        std::uint64_t value = 0;
        for (unsigned shift = 0;; shift += 7) {
            const auto byte = read<std::uint8_t>();
            const std::uint64_t bits = byte & 0x7F;
            if (!ok() || (shift >= 63 && !repeatsSign(bits, shift, value))) {
                fail();
                return 0;
            }
            value |= shift < 64 ? bits << shift : 0;
            if ((byte & 0x80) == 0) {
                if ((byte & 0x40) != 0 && shift + 7 < 64) {
                    value |= ~std::uint64_t{0} << (shift + 7);
                }
                return static_cast<std::int64_t>(value);
            }
        }
    }

    /// The text up to the next NUL, which is passed over and not part of it. Fails without one.
    constexpr std::string_view cString() noexcept {
        const std::uint8_t* const text = current;
        while (read<std::uint8_t>() != 0) {
        }
        if (!ok()) {
            return {};
        }
        return {reinterpret_cast<const char*>(text), static_cast<std::size_t>(current - text - 1)};
    }

    constexpr void skip(std::uint64_t count) noexcept { sub(count); }

    /// Passes over padding up to the next multiple of `alignment`, counted from the start of the
    /// stretch.
    constexpr void alignTo(std::size_t alignment) noexcept {
        skip((alignment - position() % alignment) % alignment);
    }

    /// Moves to a position counted from the start of the stretch. Does not mend a failed cursor.
    constexpr void seek(std::uint64_t target) noexcept {
        if (failed || target > static_cast<std::size_t>(stop - start)) {
            fail();
            return;
        }
        current = start + target;
    }

    /// A cursor over the next `count` bytes alone, which this one passes over. Where they do not
    /// fit, both cursors have failed.
    constexpr ByteCursor sub(std::uint64_t count) noexcept {
        if (failed || count > remaining()) {
            fail();
            ByteCursor nothing(stop, stop);
            nothing.fail();
            return nothing;
        }
        const ByteCursor piece(current, current + count);
        current += count;
        return piece;
    }

 private:
    /// Whether seven bits at `shift` (63 or more) say nothing beyond the sign: in the group that
    /// holds bit 63 all are equal, in later ones all equal that bit.
    static constexpr bool repeatsSign(std::uint64_t bits, unsigned shift,
                                      std::uint64_t value) noexcept {
        if (shift == 63) {
            return bits == 0 || bits == 0x7F;
        }
        return bits == (value >> 63 != 0 ? 0x7Fu : 0u);
    }

    const std::uint8_t* start = nullptr;
    const std::uint8_t* current = nullptr;
    const std::uint8_t* stop = nullptr;
    bool failed = false;
};

}  // namespace ThreadUtilities
