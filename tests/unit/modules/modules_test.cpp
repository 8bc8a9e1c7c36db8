// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <ThreadUtilities/StackTrace.h>
#include <gtest/gtest.h>

#include "foundation/ascii.h"
#include "scripted_platform/script.h"
#include "stack/frame_details.h"
#include "stack/module_manager.h"

namespace ThreadUtilities {
namespace {

using platform::LoadedModule;

constexpr unsigned int process = 41;
constexpr unsigned int otherProcess = 42;

LoadedModule moduleAt(std::uint64_t base, std::uint64_t size, std::string_view path) {
    return {wideFromAscii(path), base, size, std::nullopt};
}

class ModuleManagerTest : public testing::Test {
 protected:
    ModuleManagerTest() { scripted::processModules.clear(); }

    std::string findPath(unsigned int processId, unsigned long long address) {
        const WideString path = manager.findModule(processId, address).path;
        return {path.begin(), path.end()};
    }

    /// Renewals that one lookup costs.
    int renewals(unsigned int processId, unsigned long long address) {
        const int before = scripted::moduleListings;
        manager.findModule(processId, address);
        return scripted::moduleListings - before;
    }

    ModuleManager manager;
};

TEST_F(ModuleManagerTest, BothBoundsAreStrict) {
    constexpr std::uint64_t top = ~std::uint64_t{0};
    scripted::processModules[process] = {
        {moduleAt(0x1000, 0x2000, "/a"), moduleAt(0x3000, 0x10, "/b"),
         moduleAt(0x2800, 0x4000, "/later"), moduleAt(top - 0xFFF, 0x1000, "/top")}};
    const struct {
        unsigned long long address;
        const char* path;
    } cases[] = {
        {0xFFF, ""},        {0x1000, ""},      {0x1001, "/a"}, {0x2FFF, "/a"},
        {0x3000, "/later"}, {0x3001, "/b"},    {0x300F, "/b"}, {0x3010, "/later"},
        {0x6800, ""},       {top - 1, "/top"}, {top, "/top"},  {top - 0xFFF, ""},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(findPath(process, one.address), one.path) << std::hex << one.address;
    }
}

TEST_F(ModuleManagerTest, RenewsForAnotherProcessAndOnAMissOnly) {
    scripted::processModules[process] = {{moduleAt(0x1000, 0x1000, "/a")}};
    scripted::processModules[otherProcess] = {{moduleAt(0x1000, 0x1000, "/b")}};
    EXPECT_EQ(renewals(process, 0x1800), 1);
    EXPECT_EQ(renewals(process, 0x1801), 0);
    EXPECT_EQ(renewals(process, 0x9000), 1) << "a miss renews once and is final";
    EXPECT_EQ(renewals(process, 0x9000), 1) << "and is not remembered";
    EXPECT_EQ(renewals(process, 0), 0);
    EXPECT_EQ(renewals(otherProcess, 0), 1) << "the process comes before the address";
    EXPECT_EQ(findPath(otherProcess, 0x1800), "/b");
    EXPECT_EQ(renewals(process, 0x1800), 1);
    EXPECT_EQ(renewals(otherProcess, 0x1800), 1);
}

TEST_F(ModuleManagerTest, AListOfTheSameVersionStays) {
    scripted::processModules[process] = {{moduleAt(0x1000, 0x1000, "/a")}, {{5, 0}}};
    EXPECT_EQ(renewals(process, 0x1800), 1);
    EXPECT_EQ(renewals(process, 0x9000), 0);
    scripted::processModules[process] = {{moduleAt(0x9000, 0x1000, "/b")}, {{6, 1}}};
    EXPECT_EQ(findPath(process, 0x9800), "/b");
    EXPECT_EQ(findPath(process, 0x1800), "");
    // The version is the process's own: an equal one of another process says nothing.
    scripted::processModules[otherProcess] = {{moduleAt(0x1000, 0x1000, "/c")}, {{6, 1}}};
    EXPECT_EQ(findPath(otherProcess, 0x1800), "/c");
    EXPECT_EQ(findPath(process, 0x9800), "/b");
    // A listing that failed is no answer to keep.
    scripted::processModules[process] = {{}, {{7, 1}}};
    EXPECT_EQ(findPath(process, 0x1800), "");
    EXPECT_EQ(renewals(process, 0x1800), 1);
}

TEST_F(ModuleManagerTest, AnUnloadedModuleIsFoundUntilTheNextRenewal) {
    scripted::processModules[process] = {{moduleAt(0x1000, 0x1000, "/gone")}};
    const ModuleRecord record = manager.findModule(process, 0x1800);
    scripted::processModules[process] = {};
    EXPECT_EQ(findPath(process, 0x1800), "/gone");
    EXPECT_EQ(findPath(process, 0x9000), "");
    EXPECT_EQ(findPath(process, 0x1800), "");
    EXPECT_EQ(record.moduleInfo->lpBaseOfDll, 0x1000u) << "a copy outlives the list";
}

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
