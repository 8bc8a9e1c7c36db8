// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "foundation/ascii.h"
#include "foundation/checked_bytes.h"
#include "foundation/random.h"
#include "foundation/system_library.h"
#include "platform/text.h"
#include "scripted_platform/script.h"

namespace ThreadUtilities {
namespace {

using Bytes = std::vector<std::uint8_t>;
using namespace std::string_literals;

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

struct SystemLibrary : testing::Test {
    SystemLibrary() {
        script = {};
        script.folder.path = wideFromAscii("C:\\Windows\\system32");
        script.libraries[wideFromAscii("C:\\Windows\\system32\\Ntdll.dll")] = &library;
    }

    scripted::SystemLibraryScript& script = scripted::systemLibrary;
    int library = 0;
};

TEST_F(SystemLibrary, LoadsTheFullPathInTheSystemFolder) {
    EXPECT_EQ(loadSystemLibrary(wideFromAscii("Ntdll.dll")), &library);
    script.folder.path.push_back('\\');
    EXPECT_EQ(loadSystemLibrary(wideFromAscii("Ntdll.dll")), &library) << "one separator only";
    EXPECT_EQ(loadSystemLibrary(wideFromAscii("missing.dll")), nullptr);
    // Backslash and colon are no forbidden parts.
    EXPECT_EQ(loadSystemLibrary(wideFromAscii("sub\\a:b.dll")), nullptr);
    ASSERT_EQ(script.opened.size(), 4u);
    EXPECT_EQ(script.opened[3], wideFromAscii("C:\\Windows\\system32\\sub\\a:b.dll"));
}

TEST_F(SystemLibrary, RefusedNamesAndFoldersDoNotReachTheSystem) {
    for (const char* name : {"..", "..\\Ntdll.dll", "a..b", "x/y", "<", ">", "\"", "|", "?", "*"}) {
        EXPECT_EQ(loadSystemLibrary(wideFromAscii(name)), nullptr) << name;
    }
    for (const char* folder : {"", "\\\\server\\share", "system32", "1:\\x", "C:/Windows"}) {
        script.folder.path = wideFromAscii(folder);
        EXPECT_EQ(loadSystemLibrary(wideFromAscii("Ntdll.dll")), nullptr) << folder;
    }
    EXPECT_TRUE(script.opened.empty());
}

TEST_F(SystemLibrary, WhereThePathSyntaxUsesSlashesOnlyTheFileNameIsTested) {
    script.folder = {wideFromAscii("/lib/a..b"), '/', true};
    script.isAbsolute = [](WideStringView path) { return path.substr(0, 1) == wide<"/">; };
    loadSystemLibrary(wideFromAscii("libm.so.6"));
    ASSERT_EQ(script.opened.size(), 1u);
    EXPECT_EQ(script.opened[0], wideFromAscii("/lib/a..b/libm.so.6"));

    for (const char* name : {"", "../libm.so.6", "sub/libm.so.6"}) {
        EXPECT_EQ(loadSystemLibrary(wideFromAscii(name)), nullptr) << name;
    }
    script.folder.path.clear();
    loadSystemLibrary(wideFromAscii("libm.so.6"));
    EXPECT_EQ(script.opened.size(), 1u) << "without a folder the root must not stand in for it";
}

}  // namespace
}  // namespace ThreadUtilities

namespace vesko {
namespace {

struct Random : testing::Test {
    decltype(randomIntHook) original = randomIntHook;
    ~Random() override { randomIntHook = original; }
};

TEST_F(Random, DrawsEveryValueOfTheRangeAndNoOther) {
    std::map<int, int> drawn;
    for (int draws = 0; draws < 20000; ++draws) {
        ++drawn[randomIntHook(-1, 8, false)];
    }
    ASSERT_EQ(drawn.size(), 10u);
    EXPECT_EQ(drawn.begin()->first, -1);
    for (const auto& [value, count] : drawn) {
        // Far outside of chance: 2000 is expected, and the standard deviation is 42.
        EXPECT_GT(count, 1500) << value;
    }
}

TEST_F(Random, TheWholeRangeOfIntIsAllowed) {
    const int lowest = std::numeric_limits<int>::min();
    std::set<int> drawn;
    for (int draws = 0; draws < 100; ++draws) {
        drawn.insert(randomInt(lowest, std::numeric_limits<int>::max(), false));
    }
    EXPECT_GT(drawn.size(), 90u);
    randomIntHook = [](int, int, bool) { return 2; };
    // The one range whose every value shows what becomes of the lowest.
    for (int draws = 0; draws < 50; ++draws) {
        const int value = randomInt(lowest, lowest + 1, true);
        EXPECT_TRUE(value == lowest || value == std::numeric_limits<int>::max()) << value;
    }
}

}  // namespace
}  // namespace vesko
