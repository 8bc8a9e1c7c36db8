// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// What the logic asks of this system.

#include <ThreadUtilities/StackTrace.h>
#include <ThreadUtilities/Threads.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <numeric>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "foundation/system_library.h"
#include "platform/modules.h"
#include "platform/system_library.h"
#include "platform/text.h"
#include "platform/thread_context.h"
#include "platform/threads.h"
#include "support/latch.h"
#include "unwind/frame_walk.h"
#include "windows/guarded_call.h"
#include "windows/module_handles.h"
#include "windows_support/child_process.h"
#include "windows_support/target_thread.h"

// A function whose unwind data is known to the byte: it keeps 64 bytes of stack below its return
// address. Never run.
asm(R"(
    .text
    .globl framesTestKnownFunction
    .def framesTestKnownFunction; .scl 2; .type 32; .endef
    .seh_proc framesTestKnownFunction
framesTestKnownFunction:
    subq $64, %rsp
    .seh_stackalloc 64
    .seh_endprologue
    nop
    nop
    nop
    nop
    addq $64, %rsp
    ret
    .seh_endproc
)");
extern "C" const std::uint8_t framesTestKnownFunction[];

namespace ThreadUtilities::platform {
namespace {

using tests::ChildProcess;
using tests::TargetThread;

void readWord(void* address) {
    [[maybe_unused]] const std::uint64_t word = *static_cast<volatile std::uint64_t*>(address);
}

void writeWord(void* address) {
    *static_cast<volatile std::uint64_t*>(address) = 1;
}

TEST(GuardedCall, EveryKindOfExceptionEndsTheCall) {
    const auto kernelAddress = reinterpret_cast<void*>(0xFFFFF78000000000);
    const auto notCanonical = reinterpret_cast<void*>(0x8765432112345678);
    const struct {
        const char* name;
        void (*function)(void*);
        void* argument;
    } faults[] = {
        {"null", readWord, nullptr},
        {"kernel address", readWord, kernelAddress},
        {"address that is not canonical", readWord, notCanonical},
        {"write to code", writeWord, reinterpret_cast<void*>(&readWord)},
        {"illegal instruction", [](void*) { asm volatile("ud2"); }, nullptr},
        {"division",
         [](void*) {
             asm volatile("xorl %%ecx, %%ecx; idivl %%ecx" ::: "rax", "rcx", "rdx");
         },
         nullptr},
        {"raised by hand", [](void*) { RaiseException(0xE0001234, 0, 0, nullptr); }, nullptr},
        {"below a function that promises not to throw",
         [](void* address) { [address]() noexcept { readWord(address); }(); }, nullptr},
    };
    for (const auto& fault : faults) {
        EXPECT_NE(threadUtilitiesGuardedCall(fault.function, fault.argument), 0) << fault.name;
    }
}

// What the caller keeps in registers that calls preserve must come out of a fault unchanged.
TEST(GuardedCall, PreservedRegistersSurviveManyFaults) {
    std::mt19937_64 random(1);
    std::uint64_t sum = 0;
    std::uint64_t expected = 0;
    double product = 1;
    for (int round = 1; round <= 10000; ++round) {
        auto* address = reinterpret_cast<void*>(random() | 0xFFFF800000000000);
        sum += static_cast<std::uint64_t>(round);
        product *= 1.0001;
        ASSERT_NE(threadUtilitiesGuardedCall(readWord, address), 0);
        expected += static_cast<std::uint64_t>(round);
    }
    EXPECT_EQ(sum, expected);
    EXPECT_NEAR(product, 2.718, 0.001);
}

struct Sight {
    HANDLE thread = nullptr;
    int visits = 0;
    ThreadContext context;
    unsigned int suspendCount = 0;
};

Sight sight;

VisitorAnswer look(const ThreadContext& context, VisitRoom&) noexcept {
    ++sight.visits;
    sight.context = context;
    sight.suspendCount = SuspendThread(sight.thread);
    ResumeThread(sight.thread);
    return VisitorAnswer::Enough;
}

VisitResult visit(unsigned int threadId, bool suspend, ContextVisitor visitor) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    unsigned long long frame = 0;
    return visitThreadContext({threadId, suspend, visitor, deadline}, {&frame, 1}).result;
}

TEST(ThreadContext, AThreadStandsExactlyForTheVisit) {
    for (const TargetThread::Body body : {TargetThread::block, TargetThread::spin}) {
        TargetThread target(body);
        for (const bool suspend : {true, false}) {
            sight = {};
            sight.thread = target.handle();
            EXPECT_EQ(visit(target.id(), suspend, look), VisitResult::Visited);
            EXPECT_EQ(sight.visits, 1);
            EXPECT_EQ(sight.suspendCount, suspend ? 1u : 0u);
            EXPECT_EQ(sight.context.isStopped, suspend);
            EXPECT_EQ(target.suspendCount(), 0u);

            MEMORY_BASIC_INFORMATION stack{};
            VirtualQuery(reinterpret_cast<void*>(sight.context.registers[Rsp]), &stack,
                         sizeof(stack));
            EXPECT_EQ(stack.Type, static_cast<DWORD>(MEM_PRIVATE));
            EXPECT_NE(sight.context.registers[Rip], 0u);
        }
    }
}

// The second thread is suspended as often as the system counts: a visit finds it at a standstill,
// and must not resume what it could not suspend.
TEST(ThreadContext, AVisitEndsOnlyItsOwnSuspension) {
    for (const unsigned int suspensions : {1u, static_cast<unsigned int>(MAXIMUM_SUSPEND_COUNT)}) {
        TargetThread target(TargetThread::block);
        for (unsigned int count = 0; count < suspensions; ++count) {
            SuspendThread(target.handle());
        }
        sight = {};  // without the thread, whose count the visitor would change
        EXPECT_EQ(visit(target.id(), true, look), VisitResult::Visited);
        EXPECT_EQ(sight.visits, 1);
        for (unsigned int count = suspensions; count > 0; --count) {
            EXPECT_EQ(ResumeThread(target.handle()), count);
        }
    }
}

TEST(ThreadContext, WhatIsNoThreadOfThisProcessIsNotVisited) {
    TargetThread ended(TargetThread::block);
    ended.end();  // its handle, and with it its id, are kept
    ChildProcess other(TEST_CHILD, CREATE_SUSPENDED);

    for (const unsigned int threadId : {0u, 0xFFFFFFFCu, ended.id(), other.primaryThreadId()}) {
        for (const bool suspend : {true, false}) {
            sight = {};
            EXPECT_EQ(visit(threadId, suspend, look), VisitResult::NoSuchThread);
            EXPECT_EQ(sight.visits, 0);
        }
    }
    EXPECT_EQ(ResumeThread(other.primaryThread()), 1u) << "its own suspension at creation";
}

// Threads that visit each other would stop each other for good, were it not for the order of
// visits; the program's time limit is the watchdog.
TEST(ThreadContext, ThreadsThatVisitEachOtherAllGoOn) {
    constexpr int threadCount = 4;
    constexpr int rounds = 500;
    unsigned int ids[threadCount];
    tests::Latch allBegun(threadCount);
    tests::Latch allFinished(threadCount);
    std::atomic<int> visited = 0;
    std::vector<std::thread> threads;
    for (int self = 0; self < threadCount; ++self) {
        threads.emplace_back([&, self] {
            ids[self] = GetCurrentThreadId();
            allBegun.arrive_and_wait();
            const auto nothing = [](const ThreadContext&, VisitRoom&) noexcept {
                return VisitorAnswer::Enough;
            };
            for (int round = 0; round < rounds; ++round) {
                const unsigned int target = ids[(self + 1 + round % 3) % threadCount];
                visited += visit(target, true, nothing) == VisitResult::Visited;
            }
            allFinished.arrive_and_wait();
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_GT(visited, rounds);
}

std::optional<LoadedModule> moduleNamed(const std::vector<LoadedModule>& modules,
                                        const WideString& name) {
    const auto found = std::find_if(modules.begin(), modules.end(), [&](const auto& module) {
        const WideString file = module.path.substr(module.path.rfind(L'\\') + 1);
        return _wcsicmp(file.c_str(), name.c_str()) == 0;
    });
    return found != modules.end() ? std::optional(*found) : std::nullopt;
}

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
    const ChildProcess child(
        std::string("\"") + TEST_CHILD + "\" \"" + TEST_PLUGIN + "\" ThreadUtilitiesTestReady", 0);
    ASSERT_EQ(WaitForSingleObject(ready, 60000), WAIT_OBJECT_0);
    const auto found = moduleNamed(listModules(child.id()), L"TestPlugin.dll");
    ASSERT_TRUE(found);
    const std::wstring text = getFrameDetails(child.id(), found->imageBase + 0x1001);
    EXPECT_EQ(text, L"TestPlugin.dll+0x1001{00112233-4455-6677-8899-AABBCCDDEEFF};");
    CloseHandle(ready);
}

}  // namespace
}  // namespace ThreadUtilities::platform

namespace ThreadUtilities {
namespace {

using tests::TargetThread;

bool contains(const std::vector<unsigned int>& ids, unsigned int id) {
    return std::find(ids.begin(), ids.end(), id) != ids.end();
}

TEST(SystemThreads, BothSourcesFindTheThreadsOfThisAndOfAnotherProcess) {
    const TargetThread target(TargetThread::block);
    const tests::ChildProcess child(TEST_CHILD, CREATE_SUSPENDED);
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
    EXPECT_EQ(wideToUtf8(WideString{0xD800, L'x', 0}), std::string("\xEF\xBF\xBDx\0", 5));

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

using Frames = std::array<unsigned long long, 256>;

/// A frame of the plug-in between frames of the program: calls `function(argument)`.
using CallThrough = void (*)(void (*function)(void*), void* argument);

CallThrough loadedCallThrough() {
    static const HMODULE plugin = LoadLibraryA(TEST_PLUGIN);
    return reinterpret_cast<CallThrough>(
        reinterpret_cast<void*>(GetProcAddress(plugin, "callThrough")));
}

/// The modules that the frames pass through, innermost first, each run of frames once.
std::vector<std::wstring> modulesOf(const Frames& frames, std::size_t count) {
    std::vector<std::wstring> modules;
    for (std::size_t index = 0; index < count; ++index) {
        std::wstring module = getFrameDetails(0, frames[index]);
        module.resize(std::min(module.find(L'+'), module.size()));
        _wcslwr(module.data());
        if (modules.empty() || modules.back() != module) {
            modules.push_back(module);
        }
    }
    return modules;
}

void blockBelowTheDll(TargetThread& self) {
    loadedCallThrough()(
        [](void* target) { TargetThread::block(*static_cast<TargetThread*>(target)); }, &self);
}

// The innermost function, the system's own call gate, has no unwind data; the outermost is the
// system's thread start.
TEST(Frames, ABlockedThreadsStackGoesThroughAllKindsOfModulesToItsStart) {
    TargetThread target(blockBelowTheDll);
    Frames frames{}, before{};
    std::size_t count = 0;
    do {  // it says that it is ready just before it waits
        before = frames;
        count = getStackTrace(target.id(), frames.data(), frames.size(), true);
        Sleep(10);
    } while (frames != before);
    const std::vector<std::wstring> inOrder = {L"kernelbase.dll", L"windows_backend_test.exe",
                                               L"testplugin.dll", L"windows_backend_test.exe",
                                               L"kernel32.dll",   L"ntdll.dll"};
    EXPECT_EQ(modulesOf(frames, count), inOrder);
    EXPECT_EQ(target.suspendCount(), 0u);

    Frames again{};
    EXPECT_EQ(getStackTrace(target.id(), again.data(), again.size(), false), count);
    EXPECT_EQ(again, frames) << "without suspension: the thread has not moved";
}

/// Where a page that can be read ends, and one that cannot begins.
std::uint64_t* newEdgeOfMemory() {
    auto* const begin = static_cast<char*>(VirtualAlloc(nullptr, 8192, MEM_RESERVE, PAGE_NOACCESS));
    VirtualAlloc(begin, 4096, MEM_COMMIT, PAGE_READWRITE);
    return reinterpret_cast<std::uint64_t*>(begin + 4096);
}

platform::ThreadContext contextAt(std::uint64_t programCounter, std::uint64_t* stackPointer) {
    platform::ThreadContext context;
    context.registers[platform::Rip] = programCounter;
    context.registers[platform::Rsp] = reinterpret_cast<std::uint64_t>(stackPointer);
    return context;
}

TEST(Frames, AFaultEndsTheWalkAndKeepsTheFramesBeforeIt) {
    std::uint64_t* const edge = newEdgeOfMemory();
    const auto known = reinterpret_cast<std::uint64_t>(framesTestKnownFunction) + 6;
    const auto uncovered = reinterpret_cast<std::uint64_t>(edge) - 4096;
    const struct {
        const char* name;
        std::uint64_t programCounter;
        std::vector<std::uint64_t> stack;  ///< the last words before the edge
        WalkEnd end;
    } cases[] = {
        {"leaf, then a frame beyond the edge", uncovered, {known}, WalkEnd::Unreadable},
        {"known frame, then code without unwind data",
         known,
         {0, 0, 0, 0, 0, 0, 0, 0, uncovered},
         WalkEnd::NoUnwindData},
    };
    for (const auto& one : cases) {
        std::uint64_t* stackPointer = edge - one.stack.size();
        std::copy(one.stack.begin(), one.stack.end(), stackPointer);
        Frames frames{};
        const WalkResult result =
            walkThread(contextAt(one.programCounter, stackPointer), frames.data(), frames.size());
        EXPECT_EQ(result.frameCount, 1u) << one.name;
        EXPECT_EQ(result.end, one.end) << one.name;
        EXPECT_EQ(frames[0], one.stack.back()) << one.name;
    }
}

// The thread stands at a place that is not its own while it is captured.
TEST(Frames, AThreadRunsOnAfterAFaultInItsWalk) {
    TargetThread target(TargetThread::spin);
    SuspendThread(target.handle());
    CONTEXT context{};
    context.ContextFlags = CONTEXT_FULL;
    ASSERT_NE(GetThreadContext(target.handle(), &context), 0);
    CONTEXT damaged = context;
    damaged.Rip = reinterpret_cast<std::uint64_t>(framesTestKnownFunction) + 6;
    damaged.Rsp = reinterpret_cast<std::uint64_t>(newEdgeOfMemory());
    ASSERT_NE(SetThreadContext(target.handle(), &damaged), 0);
    Frames frames{};
    frames[0] = 0x5555;
    EXPECT_EQ(getStackTrace(target.id(), frames.data(), frames.size(), true), 0u);
    EXPECT_EQ(frames[0], 0u);
    SetThreadContext(target.handle(), &context);
    EXPECT_EQ(ResumeThread(target.handle()), 1u);
}

}  // namespace
}  // namespace ThreadUtilities
