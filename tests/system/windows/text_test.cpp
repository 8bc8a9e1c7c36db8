// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// The system's converters against the rule that the library's own converter follows.

#include "platform/text.h"

#include <gtest/gtest.h>

#include "foundation/text_conversion.h"

namespace ThreadUtilities {
namespace {

TEST(SystemText, WellFormedTextGoesBothWays) {
    const std::string utf8("a\0\xC3\xA9\xE6\xBC\xA2\xF0\x9F\x98\x80", 11);
    const WideString wide{L'a', 0, 0xE9, 0x6F22, 0xD83D, 0xDE00};
    EXPECT_EQ(utf8ToWide(utf8), wide);
    EXPECT_EQ(wideToUtf8(wide), utf8);
    EXPECT_EQ(utf8ToWide(""), WideString());
    EXPECT_EQ(wideToUtf8(WideString()), "");
}

TEST(SystemText, MalformedTextIsReplaced) {
    EXPECT_EQ(utf8ToWide("\xFF"), WideString{0xFFFD});
    EXPECT_EQ(utf8ToWide("x\xE2\x82"), (WideString{L'x', 0xFFFD}));
    EXPECT_EQ(wideToUtf8(WideString{0xD800, L'x'}), "\xEF\xBF\xBDx");
    EXPECT_EQ(wideToUtf8(WideString{0xDC00}), "\xEF\xBF\xBD");
}

}  // namespace
}  // namespace ThreadUtilities
