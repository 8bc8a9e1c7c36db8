// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/modules.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <ThreadUtilities/StackTrace.h>

#include <algorithm>
#include <numeric>
#include <optional>
#include <string>

#include "windows/module_handles.h"
#include "windows_support/child_process.h"
#include "windows_support/target_thread.h"

namespace ThreadUtilities::platform {
namespace {

std::optional<LoadedModule> moduleNamed(const std::vector<LoadedModule>& modules,
                                        const WideString& name) {
    const auto found = std::find_if(modules.begin(), modules.end(), [&](const auto& module) {
        const WideString file = module.path.substr(module.path.rfind(L'\\') + 1);
        return _wcsicmp(file.c_str(), name.c_str()) == 0;
    });
    return found != modules.end() ? std::optional(*found) : std::nullopt;
}

// The build id that the plugin is linked with, as it stands in the file.
constexpr DebugGuid pluginGuid = {0x33, 0x22, 0x11, 0x00, 0x55, 0x44, 0x77, 0x66,
                                  0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};

// More modules than the first list has room for, and others loaded between two questions.
TEST(Modules, AreAskedForUntilAListHoldsThemAll) {
    const std::vector<std::uint32_t> counts = {1500, 1600, 1550};
    std::vector<std::size_t> rooms;
    const auto ask = [&](std::uint64_t* handles, std::uint32_t size, std::uint32_t& needed) {
        EXPECT_EQ(needed, 0u);
        const std::uint32_t count = counts.at(rooms.size());
        rooms.push_back(size / sizeof(*handles));
        std::iota(handles, handles + std::min<std::size_t>(rooms.back(), count), 1);
        needed = count * sizeof(*handles);
        return true;
    };
    std::vector<std::uint64_t> expected(1550);
    std::iota(expected.begin(), expected.end(), 1);
    EXPECT_EQ(askForHandles<std::uint64_t>(ask), expected);
    EXPECT_EQ(rooms, (std::vector<std::size_t>{1024, 1500, 1600}));
}

TEST(Modules, OfThisProcess) {
    const HMODULE plugin = LoadLibraryA(TEST_PLUGIN);
    const auto modules = listModules(GetCurrentProcessId());
    const auto found = moduleNamed(modules, L"TestPlugin.dll");
    ASSERT_TRUE(found);
    EXPECT_EQ(found->imageBase, reinterpret_cast<std::uint64_t>(plugin));
    const auto entry = reinterpret_cast<std::uint64_t>(
        reinterpret_cast<void*>(GetProcAddress(plugin, "callThrough")));
    EXPECT_GT(entry, found->imageBase);
    EXPECT_LT(entry, found->imageBase + found->imageSize);
    EXPECT_EQ(found->debugGuid, pluginGuid);
    EXPECT_TRUE(moduleNamed(modules, L"windows_backend_test.exe"));
    EXPECT_TRUE(moduleNamed(modules, L"ntdll.dll"));

    EXPECT_EQ(getFrameDetails(0, entry).substr(0, 16), L"TestPlugin.dll+0");
    EXPECT_NE(getFrameDetails(0, entry).find(L"{00112233-4455-6677-8899-AABBCCDDEEFF};"),
              std::wstring::npos);

    FreeLibrary(plugin);
    EXPECT_FALSE(moduleNamed(listModules(GetCurrentProcessId()), L"TestPlugin.dll"));
}

TEST(Modules, OfAChildProcess) {
    const HANDLE ready = CreateEventA(nullptr, TRUE, FALSE, "ThreadUtilitiesTestReady");
    const HANDLE end = CreateEventA(nullptr, TRUE, FALSE, "ThreadUtilitiesTestEnd");
    const tests::ChildProcess child(std::string("\"") + TEST_CHILD + "\" wait \"" + TEST_PLUGIN +
                                        "\" ThreadUtilitiesTestReady ThreadUtilitiesTestEnd",
                                    0);
    ASSERT_TRUE(child.hasStarted());
    ASSERT_EQ(WaitForSingleObject(ready, 60000), WAIT_OBJECT_0);
    const auto found = moduleNamed(listModules(child.id()), L"TestPlugin.dll");
    ASSERT_TRUE(found);
    EXPECT_EQ(found->debugGuid, pluginGuid);
    const std::wstring text = getFrameDetails(child.id(), found->imageBase + 0x1001);
    EXPECT_EQ(text, L"TestPlugin.dll+0x1001{00112233-4455-6677-8899-AABBCCDDEEFF};");
    SetEvent(end);
    EXPECT_EQ(child.waitForExitStatus(), 0u);
    CloseHandle(ready);
    CloseHandle(end);
}

}  // namespace
}  // namespace ThreadUtilities::platform
