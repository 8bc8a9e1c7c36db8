// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/text.h"

#include <gtest/gtest.h>

#include "foundation/ascii.h"

namespace ThreadUtilities {
namespace {

using namespace std::string_literals;

TEST(TextConversion, BothWays) {
    struct Pair {
        std::string utf8;
        WideString wide;
    };
    const Pair pairs[] = {
        {"", {}},
        {"worker 7", wideFromAscii("worker 7")},
        {"\xC3\xA9", {0xE9}},
        {"\xF0\x9F\x98\x80", {0xD83D, 0xDE00}},
        {"a\0b\0"s, {'a', 0, 'b', 0}},
        {"12345678\xED\x9F\xBF"
         "abcdefgh\xEE\x80\x80",
         wideFromAscii("12345678") + WideChar(0xD7FF) + wideFromAscii("abcdefgh") +
             WideChar(0xE000)},
        {"\xEF\xBB\xBFx", {0xFEFF, 'x'}},
        {"\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF",
         {0x7F, 0x80, 0x7FF, 0x800, 0xFFFF, 0xD800, 0xDC00, 0xDBFF, 0xDFFF}},
    };
    for (const Pair& pair : pairs) {
        EXPECT_EQ(utf8ToWide(pair.utf8), pair.wide) << pair.utf8;
        EXPECT_EQ(wideToUtf8(pair.wide), pair.utf8);
    }
}

// The examples of Unicode 15, tables 3-8 to 3-11, and what is cut off at the end of the text.
TEST(TextConversion, EveryMaximalSubpartOfMalformedUtf8IsOneReplacement) {
    const struct {
        std::string utf8;
        WideString wide;
    } cases[] = {
        {"\xFF", {0xFFFD}},
        {"\x80\xBF", {0xFFFD, 0xFFFD}},
        {"\xC0\xAF\xE0\x80\xBF\xF0\x81\x82\x41",
         {0xFFFD, 0xFFFD, 0xFFFD, 0xFFFD, 0xFFFD, 0xFFFD, 0xFFFD, 0xFFFD, 0x41}},
        {"\xED\xA0\x80\xED\xBF\xBF\xED\xAF\x41",
         {0xFFFD, 0xFFFD, 0xFFFD, 0xFFFD, 0xFFFD, 0xFFFD, 0xFFFD, 0xFFFD, 0x41}},
        {"\xF4\x91\x92\x93\xFF\x41\x80\xBF\x42",
         {0xFFFD, 0xFFFD, 0xFFFD, 0xFFFD, 0xFFFD, 0x41, 0xFFFD, 0xFFFD, 0x42}},
        {"\xE1\x80\xE2\xF0\x91\x92\xF1\xBF\x41", {0xFFFD, 0xFFFD, 0xFFFD, 0xFFFD, 0x41}},
        {"long enough\xF0\x9F\x98", wideFromAscii("long enough") + WideChar(0xFFFD)},
        {"\xE2\x82", {0xFFFD}},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(utf8ToWide(one.utf8), one.wide) << testing::PrintToString(one.utf8);
    }
}

TEST(TextConversion, UnpairedSurrogatesBecomeReplacements) {
    const std::string replacement = "\xEF\xBF\xBD";
    EXPECT_EQ(wideToUtf8(WideString{0xD800}), replacement);
    EXPECT_EQ(wideToUtf8(WideString{0xDC00, 0xDC00, 'x'}), replacement + replacement + "x");
    EXPECT_EQ(wideToUtf8(WideString{0xDBFF, 0xDBFF, 0xDFFF}), replacement + "\xF4\x8F\xBF\xBF");
    EXPECT_EQ(wideToUtf8(WideString{'a', 'b', 'c', 0xD800, 'd'}), "abc" + replacement + "d");
}

}  // namespace
}  // namespace ThreadUtilities
