// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/threads.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <ThreadUtilities/Threads.h>

#include <algorithm>

#include "foundation/system_library.h"
#include "platform/system_library.h"
#include "platform/text.h"
#include "windows_support/child_process.h"
#include "windows_support/target_thread.h"

namespace ThreadUtilities {
namespace {

using tests::TargetThread;

bool contains(const std::vector<unsigned int>& ids, unsigned int id) {
    return std::find(ids.begin(), ids.end(), id) != ids.end();
}

TEST(SystemThreads, BothSourcesFindTheThreadsOfThisAndOfAnotherProcess) {
    const TargetThread target(TargetThread::block);
    const tests::ChildProcess child(std::string("\"") + TEST_CHILD + "\" debugger",
                                    CREATE_SUSPENDED);
    ASSERT_TRUE(child.hasStarted());
    for (const auto enumerate : {platform::enumerateThreadsFromSystemInformation,
                                 platform::enumerateThreadsFromSnapshot}) {
        EXPECT_TRUE(contains(enumerate(GetCurrentProcessId()), target.id()));
        EXPECT_TRUE(contains(enumerate(GetCurrentProcessId()), getThreadId()));
        EXPECT_FALSE(contains(enumerate(GetCurrentProcessId()), child.primaryThreadId()));
        EXPECT_EQ(enumerate(child.id()), std::vector{child.primaryThreadId()});
        EXPECT_TRUE(enumerate(0xFFFFFFFC).empty());
    }
}

TEST(SystemThreads, NamesOfAnyLengthAndScript) {
    for (const std::string& name : {std::string(5000, 'x'), std::string()}) {
        setThreadName(name);
        EXPECT_EQ(getThreadName(), name);
    }
    setThreadName("bad \xFF byte, cut \xE2\x82");
    EXPECT_EQ(getThreadName(), "bad \xEF\xBF\xBD byte, cut \xEF\xBF\xBD");
    setThreadName("");
    EXPECT_EQ(wideToUtf8(WideString{0xD800, L'x', 0, 0xDC00}),
              std::string("\xEF\xBF\xBDx\0\xEF\xBF\xBD", 8));

    static const char named[] = "\xC3\xA4\xE6\xBC\xA2\xF0\x9F\x98\x80";
    TargetThread target([](TargetThread& self) {
        setThreadName(named);
        TargetThread::block(self);
    });
    EXPECT_EQ(getThreadName(target.id()), named);
    const TargetThread unnamed(TargetThread::block);
    EXPECT_EQ(getThreadName(unnamed.id()), "");
    EXPECT_EQ(getThreadName(0), "");
    EXPECT_EQ(getThreadName(0xFFFFFFFC), "");
}

TEST(SystemLibraries, ComeFromTheSystemFolderAlone) {
    const auto folder = platform::systemLibraryFolder();
    EXPECT_EQ(_wcsicmp(folder.path.c_str(), L"C:\\windows\\system32"), 0);
    const auto library = loadSystemLibrary(L"Ntdll.dll");
    ASSERT_NE(library, nullptr);
    EXPECT_EQ(library, static_cast<void*>(GetModuleHandleA("ntdll.dll")));
    EXPECT_NE(platform::findEntryPoint(library, "NtQuerySystemInformation"), nullptr);
    EXPECT_EQ(platform::findEntryPoint(library, "NoSuchEntryPoint"), nullptr);
    platform::closeLibrary(library);

    EXPECT_EQ(loadSystemLibrary(L"NoSuch.dll"), nullptr);
    EXPECT_TRUE(platform::isAbsolutePath(L"z:\\x"));
    for (const wchar_t* path :
         {L"", L"C:", L"C:x", L"\\\\server\\share", L"\\x", L"1:\\", L"C:/x"}) {
        EXPECT_FALSE(platform::isAbsolutePath(path)) << wideToUtf8(WideString(path));
    }
}

}  // namespace
}  // namespace ThreadUtilities
