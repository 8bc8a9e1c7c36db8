// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "stack/frame_details.h"

#include <ThreadUtilities/StackTrace.h>
#include <gtest/gtest.h>

#include "foundation/ascii.h"
#include "scripted_platform/current_script.h"
#include "scripted_platform/modules_script.h"

namespace ThreadUtilities {
namespace {

constexpr unsigned int process = 51;
constexpr platform::DebugGuid guid{0xE7, 0x3E, 0x88, 0xB5, 0x7B, 0xD2, 0xB7, 0x21,
                                   0xF8, 0xA9, 0x22, 0x8E, 0xD6, 0x80, 0x8B, 0x85};

class FrameDetailsTest : public testing::Test {
 protected:
    FrameDetailsTest() { scripted::processModules.clear(); }

    static void load(const WideString& path, std::optional<platform::DebugGuid> debugGuid) {
        scripted::processModules[process] = {{{path, 0x400000, 0x100000, debugGuid}}};
        describeFrame(process + 1, 1);  // makes the manager forget what it has
    }
};

TEST_F(FrameDetailsTest, NamesModuleOffsetAndGuid) {
    load(wideFromAscii("/usr/lib/libThing.so.6"), guid);
    EXPECT_EQ(describeFrame(process, 0x41C2B0),
              wideFromAscii("libThing.so.6+0x1C2B0{B5883EE7-D27B-21B7-F8A9-228ED6808B85};"));
    load(wideFromAscii("/usr/lib/libThing.so.6"), std::nullopt);
    EXPECT_EQ(describeFrame(process, 0x400001),
              wideFromAscii("libThing.so.6+0x1{00000000-0000-0000-0000-000000000000};"));
    EXPECT_EQ(describeFrame(process, 0x400000), WideString()) << "the base is not inside";
    EXPECT_EQ(describeFrame(process, 0), WideString());
    EXPECT_EQ(describeFrame(process + 1, 0x41C2B0), WideString());
}

TEST_F(FrameDetailsTest, TheFileNameIsTheLastPieceThatIsNotEmpty) {
    const struct {
        const char* path;
        const char* name;
    } cases[] = {
        {"/usr/lib/libA.so", "libA.so"},
        {"libA.so", "libA.so"},
        {"C:\\Windows\\Kernel.DLL", "Kernel.DLL"},
        {"/opt/mixed\\b.so", "b.so"},
        {"//x//y.so//", "y.so"},
        {"\\\\", ""},
        {"/with space/a b.so", "a b.so"},
    };
    for (const auto& one : cases) {
        load(wideFromAscii(one.path), std::nullopt);
        const WideString text = describeFrame(process, 0x400001);
        EXPECT_EQ(text.substr(0, text.find(u'+')), wideFromAscii(one.name)) << one.path;
    }
}

TEST_F(FrameDetailsTest, TheExportedTextHasWholeCharacters) {
    load(WideString{'/', 0xD83D, 0xDE00, 0x00E9, 0xD83D}, std::nullopt);
    const std::wstring text = getFrameDetails(process, 0x400001);
    const std::size_t nameLength = text.find(L'+');
    if constexpr (sizeof(wchar_t) == 4) {
        ASSERT_EQ(nameLength, 3u);
        EXPECT_EQ(static_cast<std::uint32_t>(text[0]), 0x1F600u);
        EXPECT_EQ(static_cast<std::uint32_t>(text[2]), 0xD83Du) << "a lone half stays as it is";
    } else {
        EXPECT_EQ(nameLength, 4u);
    }
    EXPECT_EQ(getFrameDetails(process, 1), std::wstring());
}

}  // namespace
}  // namespace ThreadUtilities
