// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Capturing the calling thread's own stack, with every frame in code of another function. Each
// benchmark walks the whole stack of the given number of frames, down to the start of the process.

#include <benchmark/benchmark.h>
#include <dlfcn.h>

#if defined(HAVE_LIBUNWIND)
#define UNW_LOCAL_ONLY
#include <libunwind.h>
#endif

#include <cstdint>
#include <thread>

#include "deep_stack.h"
#include "linux/capture/handler/module_table.h"
#include "unwind/frame_walk.h"

namespace {

constexpr int capacity = 512;

using Walk = std::size_t (*)(void** frames);

std::size_t walkOwn(void** frames) {
    return ThreadUtilities::walkCallingThread(reinterpret_cast<unsigned long long*>(frames),
                                              capacity);
}

std::size_t walkCLibrary(void** frames) {
    // By its library: libunwind has a function of the same name.
    static const auto backtrace = reinterpret_cast<int (*)(void**, int)>(
        dlsym(dlopen("libc.so.6", RTLD_LAZY | RTLD_NOLOAD), "backtrace"));
    return backtrace(frames, capacity);
}

#if defined(HAVE_LIBUNWIND)
std::size_t walkLibunwind(void** frames) {
    return unw_backtrace(frames, capacity);
}
#endif

/// The limit: follows the chain of frame pointers and checks nothing but that it grows, up to the
/// frame that called the chain's first function.
std::uintptr_t outermostFrame = 0;

std::size_t walkFramePointers(void** frames) {
    std::size_t count = 0;
    auto* frame = static_cast<std::uintptr_t*>(__builtin_frame_address(0));
    while (count < capacity) {
        frames[count++] = reinterpret_cast<void*>(frame[1]);
        auto* const next = reinterpret_cast<std::uintptr_t*>(frame[0]);
        if (next <= frame || reinterpret_cast<std::uintptr_t>(next) > outermostFrame) {
            break;
        }
        frame = next;
    }
    return count;
}

struct Run {
    benchmark::State& state;
    Walk walk;
    std::size_t frameCount = 0;
};

void measure(void* argument) {
    Run& run = *static_cast<Run*>(argument);
    void* frames[capacity];
    for (auto _ : run.state) {
        run.frameCount = run.walk(frames);
        benchmark::DoNotOptimize(frames);
    }
}

void countFrames(void* argument) {
    void* frames[capacity];
    *static_cast<std::size_t*>(argument) = walkOwn(frames);
}

void wholeStack(benchmark::State& state, Walk walk) {
    std::size_t outside = 0;
    deep_stack::callWithoutFramePointers(1, countFrames, &outside);
    Run run{state, walk};
    const int depth = static_cast<int>(state.range(0)) - static_cast<int>(outside) + 1;
    deep_stack::callWithoutFramePointers(depth, measure, &run);
    state.counters["frames"] = static_cast<double>(run.frameCount);
}

/// The same on a thread of the program's own: its frames are small, while some of those of the
/// benchmark library on the first thread are as large as pages.
void workerStack(benchmark::State& state, Walk walk) {
    std::thread([&] { wholeStack(state, walk); }).join();
}

/// The same with one frame in a module that may be unloaded.
void pluginStack(benchmark::State& state, Walk walk) {
    void* const plugin = dlopen(PLUGIN_PATH, RTLD_NOW);
    using Body = void (*)(void*);
    const auto callFromPlugin =
        reinterpret_cast<void (*)(Body, void*)>(dlsym(plugin, "callFromPlugin"));
    std::thread([&] {
        auto body = [&] { wholeStack(state, walk); };
        callFromPlugin([](void* argument) { (*static_cast<decltype(body)*>(argument))(); }, &body);
    }).join();
    dlclose(plugin);
}

/// With the library's own list of modules, as where the C library cannot look one up in a handler.
void workerStackByModuleTable(benchmark::State& state) {
    ThreadUtilities::platform::setModuleTableUse(true);
    workerStack(state, walkOwn);
    ThreadUtilities::platform::setModuleTableUse(false);
}

void wholeStackByModuleTable(benchmark::State& state) {
    ThreadUtilities::platform::setModuleTableUse(true);
    wholeStack(state, walkOwn);
    ThreadUtilities::platform::setModuleTableUse(false);
}

void framePointerChain(benchmark::State& state) {
    Run run{state, walkFramePointers};
    outermostFrame = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
    deep_stack::callWithFramePointers(static_cast<int>(state.range(0)) - 2, measure, &run);
    state.counters["frames"] = static_cast<double>(run.frameCount);
}

BENCHMARK_CAPTURE(wholeStack, own, walkOwn)->Arg(15)->Arg(32)->Arg(100);
BENCHMARK_CAPTURE(wholeStack, c_library, walkCLibrary)->Arg(15)->Arg(32)->Arg(100);
BENCHMARK_CAPTURE(workerStack, own, walkOwn)->Arg(32);
BENCHMARK_CAPTURE(workerStack, c_library, walkCLibrary)->Arg(32);
BENCHMARK_CAPTURE(pluginStack, own, walkOwn)->Arg(32);
BENCHMARK_CAPTURE(pluginStack, c_library, walkCLibrary)->Arg(32);
BENCHMARK(workerStackByModuleTable)->Arg(32);
BENCHMARK(wholeStackByModuleTable)->Arg(32);
BENCHMARK(framePointerChain)->Arg(15)->Arg(32)->Arg(100);
#if defined(HAVE_LIBUNWIND)
BENCHMARK_CAPTURE(wholeStack, libunwind, walkLibunwind)->Arg(15)->Arg(32)->Arg(100);
BENCHMARK_CAPTURE(workerStack, libunwind, walkLibunwind)->Arg(32);
BENCHMARK_CAPTURE(pluginStack, libunwind, walkLibunwind)->Arg(32);
#endif

}  // namespace
