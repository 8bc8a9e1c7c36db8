// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "stack/frame_details.h"

#include <ThreadUtilities/StackTrace.h>
#include <gtest/gtest.h>

#include "foundation/ascii.h"
#include "scripted_platform/memory_script.h"

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
    for (const auto& [path, name] : {std::pair("libA.so", "libA.so"),
                                     {"C:\\Windows\\Kernel.DLL", "Kernel.DLL"},
                                     {"//x//a b.so//", "a b.so"},
                                     {"\\\\", ""}}) {
        load(wideFromAscii(path), std::nullopt);
        const WideString text = describeFrame(process, 0x400001);
        EXPECT_EQ(text.substr(0, text.find(u'+')), wideFromAscii(name)) << path;
    }
}

TEST_F(FrameDetailsTest, TheExportedTextHasWholeCharacters) {
    load(WideString{'/', 0xD83D, 0xDE00, 0x00E9, 0xD83D}, std::nullopt);
    const std::wstring text = getFrameDetails(process, 0x400001);
    const std::wstring name(text, 0, text.find(L'+'));
    // A lone half stays as it is.
    EXPECT_EQ(name,
              (sizeof(wchar_t) == 4 ? std::wstring{static_cast<wchar_t>(0x1F600), 0x00E9, 0xD83D}
                                    : std::wstring{0xD83D, 0xDE00, 0x00E9, 0xD83D}));
}

}  // namespace
}  // namespace ThreadUtilities
