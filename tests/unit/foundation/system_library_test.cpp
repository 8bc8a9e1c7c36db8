// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "foundation/system_library.h"

#include <gtest/gtest.h>

#include "foundation/ascii.h"
#include "scripted_platform/system_library_script.h"

namespace ThreadUtilities {
namespace {

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

TEST_F(SystemLibrary, RefusedNamesDoNotReachTheSystem) {
    for (const char* name : {"..", "..\\Ntdll.dll", "a..b", "x/y", "<", ">", "\"", "|", "?", "*"}) {
        EXPECT_EQ(loadSystemLibrary(wideFromAscii(name)), nullptr) << name;
    }
    EXPECT_TRUE(script.opened.empty());
}

TEST_F(SystemLibrary, FoldersThatAreNoneAreRefused) {
    for (const char* folder : {"", "\\\\server\\share", "system32", "1:\\x", "C:/Windows", "C:"}) {
        script.folder.path = wideFromAscii(folder);
        const bool drive = std::string_view(folder) == "C:";
        EXPECT_EQ(loadSystemLibrary(wideFromAscii("Ntdll.dll")), nullptr) << folder;
        EXPECT_EQ(script.opened.empty(), !drive) << folder;
    }
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
