// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

#include <gtest/gtest.h>
#include <windows.h>

#include <ThreadUtilities/StackTrace.h>
#include <ThreadUtilities/Threads.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "unwind/frame_walk.h"
#include "windows_support/call_through.h"
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

namespace ThreadUtilities {
namespace {

using tests::CallThrough;
using tests::TargetThread;

using Frames = std::array<unsigned long long, 256>;

CallThrough loadedCallThrough() {
    static const HMODULE plugin = LoadLibraryA(TEST_PLUGIN);
    return reinterpret_cast<CallThrough>(
        reinterpret_cast<void*>(GetProcAddress(plugin, "callThrough")));
}

std::string moduleOf(unsigned long long address) {
    HMODULE module = nullptr;
    constexpr DWORD flags =
        GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
    if (GetModuleHandleExA(flags, reinterpret_cast<const char*>(address), &module) == 0) {
        return "";
    }
    std::string path(MAX_PATH, '\0');
    path.resize(GetModuleFileNameA(module, path.data(), MAX_PATH));
    std::string name = path.substr(path.rfind('\\') + 1);
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char letter) { return std::tolower(letter); });
    return name;
}

/// The modules that the frames pass through, innermost first, each run of frames once.
std::vector<std::string> modulesOf(const Frames& frames, std::size_t count) {
    std::vector<std::string> modules;
    for (std::size_t index = 0; index < count; ++index) {
        const std::string module = moduleOf(frames[index]);
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
    Frames frames{};
    const auto count = getStackTrace(target.id(), frames.data(), frames.size(), true);
    const std::vector<std::string> modules = modulesOf(frames, count);
    const std::vector<std::string> inOrder = {"kernelbase.dll", "windows_backend_test.exe",
                                              "testplugin.dll", "windows_backend_test.exe",
                                              "kernel32.dll",   "ntdll.dll"};
    EXPECT_EQ(modules, inOrder) << testing::PrintToString(modules);
    EXPECT_EQ(target.suspendCount(), 0u);

    Frames again{};
    EXPECT_EQ(getStackTrace(target.id(), again.data(), again.size(), false), count);
    EXPECT_EQ(again, frames) << "without suspension: the thread has not moved";
}

TEST(Frames, TheOwnStackBeginsInsideTheCapture) {
    static Frames frames{};
    static unsigned long long count = 0;
    loadedCallThrough()(
        [](void*) { count = getStackTrace(getThreadId(), frames.data(), frames.size(), true); },
        nullptr);
    ASSERT_GT(count, 0u);
    const auto begin = reinterpret_cast<unsigned long long>(reinterpret_cast<void*>(
        static_cast<unsigned long long (*)(const unsigned int&, unsigned long long*,
                                           unsigned long long, bool)>(getStackTrace)));
    EXPECT_GT(frames[0], begin);
    EXPECT_LT(frames[0], begin + 4096);
    std::vector<std::string> modules = modulesOf(frames, count);
    modules.resize(3);
    EXPECT_EQ(modules, (std::vector<std::string>{"windows_backend_test.exe", "testplugin.dll",
                                                 "windows_backend_test.exe"}));
}

/// Readable memory that ends where unreadable memory begins.
class EdgeOfMemory {
 public:
    EdgeOfMemory() { VirtualAlloc(begin, 4096, MEM_COMMIT, PAGE_READWRITE); }
    ~EdgeOfMemory() { VirtualFree(begin, 0, MEM_RELEASE); }
    EdgeOfMemory(const EdgeOfMemory&) = delete;
    EdgeOfMemory& operator=(const EdgeOfMemory&) = delete;

    std::uint64_t* end() const { return reinterpret_cast<std::uint64_t*>(begin + 4096); }

 private:
    char* begin = static_cast<char*>(VirtualAlloc(nullptr, 8192, MEM_RESERVE, PAGE_NOACCESS));
};

platform::ThreadContext contextAt(std::uint64_t programCounter, std::uint64_t* stackPointer) {
    platform::ThreadContext context;
    context.registers[platform::Rip] = programCounter;
    context.registers[platform::Rsp] = reinterpret_cast<std::uint64_t>(stackPointer);
    return context;
}

TEST(Frames, AFaultEndsTheWalkAndKeepsTheFramesBeforeIt) {
    const EdgeOfMemory memory;
    const auto known = reinterpret_cast<std::uint64_t>(framesTestKnownFunction) + 6;
    const auto uncovered = reinterpret_cast<std::uint64_t>(memory.end()) - 4096;
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
        std::uint64_t* stackPointer = memory.end() - one.stack.size();
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
    const EdgeOfMemory memory;
    TargetThread target(TargetThread::spin);
    SuspendThread(target.handle());
    CONTEXT context{};
    context.ContextFlags = CONTEXT_FULL;
    ASSERT_NE(GetThreadContext(target.handle(), &context), 0);
    CONTEXT damaged = context;
    damaged.Rip = reinterpret_cast<std::uint64_t>(framesTestKnownFunction) + 6;
    damaged.Rsp = reinterpret_cast<std::uint64_t>(memory.end());
    ASSERT_NE(SetThreadContext(target.handle(), &damaged), 0);
    Frames frames{};
    frames[0] = 0x5555;
    EXPECT_EQ(getStackTrace(target.id(), frames.data(), frames.size(), true), 0u);
    EXPECT_EQ(frames[0], 0u);
    SetThreadContext(target.handle(), &context);
    EXPECT_EQ(ResumeThread(target.handle()), 1u);
}

// The test's own debugger: it lets its child go on after every event.
TEST(Frames, UnderADebuggerNothingIsCaptured) {
    const std::string command = std::string("\"") + TEST_CHILD + "\" debugger";
    const tests::ChildProcess alone(command, 0);
    ASSERT_TRUE(alone.hasStarted());
    EXPECT_EQ(alone.waitForExitStatus(), 10u) << "no debugger";

    const tests::ChildProcess debugged(command, DEBUG_ONLY_THIS_PROCESS);
    ASSERT_TRUE(debugged.hasStarted());
    DEBUG_EVENT event{};
    do {
        ASSERT_NE(WaitForDebugEvent(&event, 60000), 0);
        const bool isFirstChance = event.dwDebugEventCode == EXCEPTION_DEBUG_EVENT &&
                                   event.u.Exception.ExceptionRecord.ExceptionCode !=
                                       static_cast<DWORD>(EXCEPTION_BREAKPOINT);
        ContinueDebugEvent(event.dwProcessId, event.dwThreadId,
                           isFirstChance ? static_cast<DWORD>(DBG_EXCEPTION_NOT_HANDLED)
                                         : static_cast<DWORD>(DBG_CONTINUE));
    } while (event.dwDebugEventCode != EXIT_PROCESS_DEBUG_EVENT);
    EXPECT_EQ(debugged.waitForExitStatus(), 11u) << "debugger attached";
}

}  // namespace
}  // namespace ThreadUtilities
