// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Module lists and frame texts in a process with a hundred modules.

#include <ThreadUtilities/StackTrace.h>
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <link.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "platform/modules.h"
#include "stack/module_manager.h"

namespace {

namespace fs = std::filesystem;
using namespace ThreadUtilities;

constexpr std::size_t moduleCount = 100;

unsigned int ownId() {
    return static_cast<unsigned int>(getpid());
}

std::size_t loadedModules() {
    std::size_t count = 0;
    dl_iterate_phdr(
        [](dl_phdr_info*, std::size_t, void* state) {
            ++*static_cast<std::size_t*>(state);
            return 0;
        },
        &count);
    return count;
}

/// Fills the process up to a hundred modules with copies of one small library.
void loadModules() {
    std::string pattern = (fs::temp_directory_path() / "modules_benchmark_XXXXXX").string();
    const fs::path folder = mkdtemp(pattern.data());
    while (loadedModules() < moduleCount) {
        const fs::path copy = folder / ("libplugin" + std::to_string(loadedModules()) + ".so");
        fs::copy_file(MODULES_BENCHMARK_PLUGIN, copy);
        if (dlopen(copy.c_str(), RTLD_NOW) == nullptr) {
            std::fprintf(stderr, "%s\n", dlerror());
            std::abort();
        }
    }
    fs::remove_all(folder);
}

const auto knownAddress = reinterpret_cast<unsigned long long>(&std::fopen) + 4;
constexpr unsigned long long unknownAddress = 0x1000;

/// What a list from the map and the files costs: each mapped file's headers are read for its id.
void MapAndFiles(benchmark::State& state) {
    for (auto _ : state) {
        std::ifstream map("/proc/self/maps");
        std::set<std::string> paths;
        for (std::string line; std::getline(map, line);) {
            const auto path = line.find('/');
            if (path != std::string::npos && paths.insert(line.substr(path)).second) {
                char start[4096];
                std::FILE* const file = std::fopen(line.c_str() + path, "rb");
                if (file != nullptr) {
                    benchmark::DoNotOptimize(std::fread(start, 1, sizeof(start), file));
                    std::fclose(file);
                }
            }
        }
    }
}
BENCHMARK(MapAndFiles);

/// The loader's list walked, nothing kept: the limit for a whole renewal.
void LoaderListAlone(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(loadedModules());
    }
}
BENCHMARK(LoaderListAlone);

void ListOwnModules(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(platform::listModules(ownId()));
    }
}
BENCHMARK(ListOwnModules);

/// A renewal that enumerates: the manager is new each time.
void RenewalAfterAChange(benchmark::State& state) {
    for (auto _ : state) {
        ModuleManager manager;
        benchmark::DoNotOptimize(manager.findModule(ownId(), knownAddress));
    }
}
BENCHMARK(RenewalAfterAChange);

/// A renewal for an address in no module, when nothing was loaded or unloaded since the last.
void RenewalWithoutAChange(benchmark::State& state) {
    ModuleManager manager;
    for (auto _ : state) {
        benchmark::DoNotOptimize(manager.findModule(ownId(), unknownAddress));
    }
}
BENCHMARK(RenewalWithoutAChange);

void RenewalByTheProcessMap(benchmark::State& state) {
    const pid_t child = fork();
    if (child == 0) {
        pause();
    }
    ModuleManager manager;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            manager.findModule(static_cast<unsigned int>(child), unknownAddress));
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}
BENCHMARK(RenewalByTheProcessMap);

void FrameText(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(getFrameDetails(0, knownAddress));
    }
}
BENCHMARK(FrameText);

}  // namespace

int main(int argc, char** argv) {
    loadModules();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
