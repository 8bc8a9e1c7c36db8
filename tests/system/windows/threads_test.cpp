// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include "platform/threads.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <ThreadUtilities/Threads.h>

#include <algorithm>

#include "foundation/system_library.h"
#include "foundation/text_conversion.h"
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
    const std::string names[] = {
        "worker",
        "",
        std::string(5000, 'x'),
        "\xC3\xA4\xE6\xBC\xA2\xF0\x9F\x98\x80",
    };
    for (const std::string& name : names) {
        setThreadName(name);
        EXPECT_EQ(getThreadName(), name);
    }
    setThreadName("bad \xFF byte");
    EXPECT_EQ(getThreadName(), "bad \xEF\xBF\xBD byte");
    setThreadName("");

    static const char named[] = "named by itself";
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

    for (const wchar_t* refused :
         {L"..\\system32\\Ntdll.dll", L"drivers/Ntdll.dll", L"Ntdll.dll?", L"NoSuch.dll"}) {
        EXPECT_EQ(loadSystemLibrary(refused), nullptr);
    }
    const auto isAbsolute = platform::isAbsolutePath;
    EXPECT_TRUE(isAbsolute(L"C:\\"));
    EXPECT_TRUE(isAbsolute(L"z:\\x"));
    for (const wchar_t* path :
         {L"", L"C:", L"C:x", L"\\\\server\\share", L"\\x", L"1:\\", L"C:/x"}) {
        EXPECT_FALSE(isAbsolute(path)) << wideToUtf8(WideString(path));
    }
}

}  // namespace
}  // namespace ThreadUtilities
