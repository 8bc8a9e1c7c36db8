// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// The DLL as a program uses it, linked through its import library.

#include <ThreadUtilities/ThreadUtilities.h>
#include <gtest/gtest.h>
#include <process.h>
#include <windows.h>

#include <atomic>
#include <exception>
#include <memory>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "windows_support/target_thread.h"

namespace ThreadUtilities {
namespace {

using namespace std::chrono_literals;
using tests::TargetThread;
using vesko::external_input::context_store;
using vesko::external_input::hint;

bool matches(const std::string& text, const std::string& pattern) {
    return std::regex_search(text, std::regex(pattern));
}

const std::string guid = "\\{[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}\\};";

TEST(Program, ReportsTellEveryThreadByIdNameAndModules) {
    TargetThread target([](TargetThread& self) {
        setThreadName("target");
        TargetThread::block(self);
    });
    const auto [report, error] = getAllThreadStackTrace({});
    EXPECT_EQ(error, "");
    const std::string trace = "(\\S+\\+0x[0-9A-F]+" + guid + ")+";
    std::istringstream lines(report);
    std::size_t count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
        EXPECT_TRUE(matches(line, "^\\[\\d+\\]\\[[^\\]]*\\]" + trace + "$")) << line;
    }
    EXPECT_EQ(count, getThreadIds().size());
    EXPECT_TRUE(matches(report, "\\[" + getThreadIdString(target.id()) +
                                    "\\]\\[target\\].*program_test\\.exe\\+0x.*ntdll\\.dll\\+0x"))
        << report;
    EXPECT_TRUE(matches(report, "\\[" + getThreadIdString() + "\\]\\[\\]ThreadUtilities\\.dll\\+"))
        << report;
    EXPECT_TRUE(matches(getStackTrace({}, target.id()), "^" + trace + "$"));
    EXPECT_EQ(getStackTrace({}, 0xFFFFFFFC), "");
    EXPECT_EQ(target.suspendCount(), 0u);
}

// The callback throws on a thread of the library, which throws the exception once more here. With
// two copies of the C++ run-time, the program's would count one exception too few ever after.
TEST(Program, AnExceptionThatTheLibraryThrowsIsCountedOnce) {
    const unsigned int caller = getThreadId();
    const auto throwing = [caller](unsigned int, const unsigned int&,
                                   std::vector<unsigned long long>&,
                                   unsigned long long) -> unsigned long long {
        if (getThreadId() != caller) {
            throw std::out_of_range("the callback's own");
        }
        return 0;
    };
    EXPECT_THROW(sampleProcessThread(GetCurrentProcessId(), caller, 1s, 100ms, throwing),
                 std::out_of_range);
    EXPECT_EQ(std::uncaught_exceptions(), 0);
}

TEST(Program, TheFileTellsItsVersion) {
    std::vector<char> resource(GetFileVersionInfoSizeA("ThreadUtilities.dll", nullptr));
    ASSERT_TRUE(GetFileVersionInfoA("ThreadUtilities.dll", 0, static_cast<DWORD>(resource.size()),
                                    resource.data()));
    VS_FIXEDFILEINFO* fixed = nullptr;
    char* text = nullptr;
    UINT length = 0;
    ASSERT_TRUE(VerQueryValueA(resource.data(), "\\", reinterpret_cast<void**>(&fixed), &length));
    ASSERT_TRUE(VerQueryValueA(resource.data(), "\\StringFileInfo\\040904B0\\FileVersion",
                               reinterpret_cast<void**>(&text), &length));
    EXPECT_STREQ(text, LIBRARY_VERSION);
    EXPECT_EQ(std::to_string(HIWORD(fixed->dwFileVersionMS)) + '.' +
                  std::to_string(LOWORD(fixed->dwFileVersionMS)) + '.' +
                  std::to_string(HIWORD(fixed->dwFileVersionLS)),
              LIBRARY_VERSION);
}

std::atomic<int> controlBlocks = 0;

/// Counts the blocks that shared and weak references to a store keep.
template <typename Value>
struct CountingAllocator {
    using value_type = Value;
    CountingAllocator() = default;
    template <typename Other>
    explicit CountingAllocator(const CountingAllocator<Other>&) {}

    Value* allocate(std::size_t count) {
        ++controlBlocks;
        return std::allocator<Value>().allocate(count);
    }
    void deallocate(Value* values, std::size_t count) {
        --controlBlocks;
        std::allocator<Value>().deallocate(values, count);
    }
};

/// Gives the calling thread a new store.
std::shared_ptr<context_store> takeCountedStore() {
    vesko::source::location posted = vesko::source::location::current();
    const auto store = std::allocate_shared<context_store>(CountingAllocator<context_store>());
    posted.contextStore = store;
    hint::copyThreadStorageIfNecessary(posted);
    return store;
}

std::atomic<int> lateBeginnings = 0;

/// Begins values again at the end of its thread: by how the thread was started, before or behind
/// the library's notice of that.
struct LateBeginning {
    ~LateBeginning() {
        takeCountedStore();
        hint("id", "late").setAsExternalInputHint();
        ++lateBeginnings;
    }
    bool isWanted = false;
};
thread_local LateBeginning lateBeginning;

/// Gives the calling thread a name, a hint and a store.
void beginValues() {
    const auto store = takeCountedStore();
    EXPECT_EQ(context_store::getStore().lock(), store);
    hint("id", "name").setAsExternalInputHint();
    EXPECT_EQ(hint::getExternalInputHintName(), "name");
    const ScopedThreadName scope("scope", false);
    EXPECT_EQ(getThreadName(), "scope");
}

template <typename Result>
Result WINAPI beginValuesInThread(void*) {
    lateBeginning.isWanted = true;
    beginValues();
    return 0;
}

// What is left of the store then is the reference of the thread.
TEST(Program, TheValuesOfAThreadEndWithItHoweverItWasStarted) {
    for (int round = 0; round < 50; ++round) {
        // One after the other: threads with `thread_local` destructors that end at the same time
        // can stop each other for good here, with or without calls of the library.
        std::thread(beginValuesInThread<int>, nullptr).join();
        for (const bool bySystem : {true, false}) {
            const HANDLE thread =
                bySystem ? CreateThread(nullptr, 0, beginValuesInThread<DWORD>, nullptr, 0, nullptr)
                         : reinterpret_cast<HANDLE>(_beginthreadex(
                               nullptr, 0, beginValuesInThread<unsigned>, nullptr, 0, nullptr));
            WaitForSingleObject(thread, INFINITE);
            CloseHandle(thread);
        }
        EXPECT_EQ(controlBlocks, 0);
    }
    EXPECT_EQ(lateBeginnings, 150);
    beginValues();
    EXPECT_EQ(controlBlocks, 1) << "this thread still has its own";
}

}  // namespace
}  // namespace ThreadUtilities
