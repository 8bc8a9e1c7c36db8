// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// The DLL itself, loaded by a thread that is not the program's first: what the loader announces.

#include <gtest/gtest.h>
#include <process.h>
#include <windows.h>

#include <algorithm>
#include <future>
#include <thread>
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

struct Waiter {
    HANDLE ready = ThreadUtilities::tests::newEvent();
    HANDLE finish = ThreadUtilities::tests::newEvent();
    unsigned int threadId = 0;

    void run() {
        threadId = GetCurrentThreadId();
        SetEvent(ready);
        WaitForSingleObject(finish, INFINITE);
    }
};

unsigned __stdcall runWaiter(void* waiter) {
    static_cast<Waiter*>(waiter)->run();
    return 0;
}

/// Each starts a thread that runs the waiter, and returns its handle.
HANDLE startByCRuntime(Waiter& waiter) {
    return reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, runWaiter, &waiter, 0, nullptr));
}
HANDLE startBySystem(Waiter& waiter) {
    return CreateThread(
        nullptr, 0, [](void* waiting) -> DWORD { return runWaiter(waiting); }, &waiter, 0, nullptr);
}
HANDLE startByStandardLibrary(Waiter& waiter) {
    std::thread([&waiter] { waiter.run(); }).detach();
    WaitForSingleObject(waiter.ready, INFINITE);
    return OpenThread(SYNCHRONIZE, FALSE, waiter.threadId);
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

    for (const auto start : {startByCRuntime, startBySystem, startByStandardLibrary}) {
        Waiter waiter;
        const HANDLE thread = start(waiter);
        WaitForSingleObject(waiter.ready, INFINITE);
        EXPECT_EQ(library.getThreadIds().back(), waiter.threadId) << "listed last";
        SetEvent(waiter.finish);
        WaitForSingleObject(thread, INFINITE);
        CloseHandle(thread);
        EXPECT_FALSE(contains(library.getThreadIds(), waiter.threadId));
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

TEST(Notices, ThreadsThatComeAndGoLeaveNothingBehind) {
    const LoadedLibrary library;
    const auto before = library.getThreadIds().size();
    std::atomic<bool> isReading = true;
    std::thread reader([&] {
        while (isReading) {
            EXPECT_GE(library.getThreadIds().size(), before);
        }
    });
    for (int round = 0; round < 100; ++round) {
        std::vector<std::thread> threads;
        for (int index = 0; index < 8; ++index) {
            threads.emplace_back(
                [&] { EXPECT_TRUE(contains(library.getThreadIds(), GetCurrentThreadId())); });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    isReading = false;
    reader.join();
    EXPECT_EQ(library.getThreadIds().size(), before);
}

}  // namespace
