// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "stack/module_manager.h"

#include <gtest/gtest.h>

#include "foundation/ascii.h"
#include "scripted_platform/memory_script.h"

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

}  // namespace
}  // namespace ThreadUtilities
