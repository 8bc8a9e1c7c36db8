// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// The DLL itself, loaded by a thread that is not the program's first: what the loader announces.

#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <future>
#include <memory>
#include <vector>

#include "windows_support/target_thread.h"

namespace {

using ThreadUtilities::tests::TargetThread;
using ThreadIdList = std::vector<unsigned int>;

template <class Function>
Function* entry(HMODULE library, const char* mangledName) {
    return reinterpret_cast<Function*>(
        reinterpret_cast<void*>(GetProcAddress(library, mangledName)));
}

struct LoadedLibrary {
    HMODULE module = LoadLibraryA(THREAD_UTILITIES_DLL);
    unsigned int (*getMainThreadId)() = entry<unsigned int()>(module,
                                                              "_ZN9ThreadIds15getMainThreadIdEv");
    ThreadIdList (*getThreadIds)() = entry<ThreadIdList()>(module, "_ZN9ThreadIds12getThreadIdsEv");
    ThreadIdList (*getThreadIdsOf)(unsigned int) =
        entry<ThreadIdList(unsigned int)>(module, "_ZN9ThreadIds12getThreadIdsEj");
};

bool contains(const ThreadIdList& ids, unsigned int id) {
    return std::find(ids.begin(), ids.end(), id) != ids.end();
}

TEST(Notices, TheListIsKeptFromTheLoadOn) {
    const TargetThread olderThanTheLibrary(TargetThread::block);
    auto brief = std::make_unique<TargetThread>(TargetThread::block);
    unsigned int loadingThread = 0;
    const LoadedLibrary library = std::async(std::launch::async, [&loadingThread] {
                                      loadingThread = GetCurrentThreadId();
                                      return LoadedLibrary();
                                  }).get();
    ASSERT_NE(library.getThreadIds, nullptr);
    EXPECT_EQ(library.getMainThreadId(), loadingThread);
    EXPECT_TRUE(contains(library.getThreadIds(), GetCurrentThreadId()));
    EXPECT_TRUE(contains(library.getThreadIds(), olderThanTheLibrary.id()));
    EXPECT_TRUE(contains(library.getThreadIds(), brief->id()));

    const unsigned int briefId = brief->id();
    brief.reset();  // started before the load, ends after it
    EXPECT_FALSE(contains(library.getThreadIds(), briefId));

    {
        TargetThread later(TargetThread::block);
        EXPECT_EQ(library.getThreadIds().back(), later.id()) << "listed last";
        later.end();
        EXPECT_FALSE(contains(library.getThreadIds(), later.id()));
    }

    ThreadIdList kept = library.getThreadIds();
    ThreadIdList enumerated = library.getThreadIdsOf(GetCurrentProcessId());
    std::sort(kept.begin(), kept.end());
    std::sort(enumerated.begin(), enumerated.end());
    EXPECT_EQ(kept, enumerated);
}

// Were it unloaded, each time would cost the process some of its slots for values of threads. Each
// round closes it more often than it opened it, whoever else has it open.
TEST(Notices, TheLibraryStaysHoweverOftenItIsLoadedAndClosed) {
    for (int round = 0; round < 2000; ++round) {
        const LoadedLibrary library;
        ASSERT_TRUE(contains(library.getThreadIds(), GetCurrentThreadId())) << round;
        FreeLibrary(library.module);
        FreeLibrary(library.module);
        ASSERT_NE(GetModuleHandleA("ThreadUtilities.dll"), nullptr) << round;
    }
}

}  // namespace
