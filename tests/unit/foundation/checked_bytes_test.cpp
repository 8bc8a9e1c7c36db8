// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "foundation/checked_bytes.h"

#include <gtest/gtest.h>

#include <span>
#include <string>
#include <vector>

namespace ThreadUtilities {
namespace {

using Bytes = std::vector<std::uint8_t>;

ByteCursor over(const Bytes& bytes) {
    return ByteCursor(bytes.data(), bytes.size());
}

TEST(CheckedBytes, AFailureIsForGood) {
    const Bytes bytes{1, 2, 3, 4, 5};
    ByteCursor cursor = over(bytes);
    EXPECT_EQ(cursor.read<std::uint32_t>(), 0x04030201u);
    EXPECT_EQ(cursor.read<std::uint16_t>(), 0u);
    EXPECT_FALSE(cursor.ok());
    EXPECT_TRUE(cursor.atEnd());
    cursor.seek(0);
    EXPECT_EQ(cursor.read<std::uint8_t>(), 0u) << "a failed cursor must not come back to life";
    EXPECT_FALSE(cursor.sub(0).ok());
}

TEST(CheckedBytes, Leb128) {
    struct Case {
        Bytes bytes;
        bool ok;
        std::uint64_t value;
    };
    const Case unsignedCases[] = {
        {{0xE5, 0x8E, 0x26}, true, 624485},
        {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01}, true, ~0ull},
        {{0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x02}, false, 0},
        {{0x81, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x00}, true, 1},
        {{0x81, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x01}, false, 0},
        {{0x80}, false, 0},
    };
    // The value as the bits that it has.
    const auto lowest = std::uint64_t{1} << 63;
    const Case signedCases[] = {
        {{0x40}, true, 0 - std::uint64_t{64}},
        {{0xC0, 0xBB, 0x78}, true, 0 - std::uint64_t{123456}},
        {{0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x7F}, true, lowest},
        {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00}, true, lowest - 1},
        {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01}, false, 0},
        {{0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00}, false, 0},
    };
    for (const bool isSigned : {false, true}) {
        for (const Case& one : isSigned ? std::span<const Case>(signedCases) : unsignedCases) {
            ByteCursor cursor = over(one.bytes);
            const std::uint64_t value =
                isSigned ? static_cast<std::uint64_t>(cursor.sleb128()) : cursor.uleb128();
            EXPECT_EQ(value, one.value) << isSigned << testing::PrintToString(one.bytes);
            EXPECT_EQ(cursor.ok(), one.ok) << isSigned << testing::PrintToString(one.bytes);
        }
    }
}

TEST(CheckedBytes, AddressArithmeticNeverWraps) {
    constexpr std::uint64_t top = ~std::uint64_t{0};
    static_assert(checkedAdd(top - 1, 1) == top);
    static_assert(!checkedAdd(top, 1));
    static_assert(checkedOffset(16, -16) == 0);
    static_assert(!checkedOffset(15, -16));
    static_assert(checkedOffset(top - 1, 1) == top);
    static_assert(!checkedOffset(top, 1));
    static_assert(checkedOffset(7, 0) == 7);
    static_assert(checkedAlignUp(5, 4) == 8 && checkedAlignUp(8, 4) == 8);
    static_assert(!checkedAlignUp(top, 4));
    static_assert(isWithin(10, 10, 10, 20) && isWithin(20, 0, 10, 20));
    static_assert(!isWithin(10, 11, 10, 20) && !isWithin(9, 1, 10, 20) && !isWithin(21, 0, 10, 20));
    static_assert(!isWithin(15, top, 10, 20));
}

}  // namespace
}  // namespace ThreadUtilities
