// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// The module lists against what others say: the loader, the memory map, the files' own notes.

#include <ThreadUtilities/StackTrace.h>
#include <dlfcn.h>
#include <gnu/libc-version.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "linux/modules/process_map.h"
#include "platform/modules.h"
#include "platform/text.h"
#include "support/fork_child.h"
#include "support/parked_thread.h"

namespace ThreadUtilities {
namespace {

namespace fs = std::filesystem;
using platform::LoadedModule;

unsigned int ownId() {
    return static_cast<unsigned int>(getpid());
}

std::string textOf(const WideString& text) {
    return wideToUtf8(text);
}

std::string readAll(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

TEST(OwnModules, CoverEveryMappedCodeOfAFile) {
    const auto modules = platform::listModules(ownId());
    const std::string text = readAll("/proc/self/maps");
    int covered = 0;
    for (const auto& range : platform::parseProcessMap(text)) {
        if (!range.isExecutable || range.name.empty() || range.name == "[vsyscall]") {
            continue;
        }
        covered += 1;
        EXPECT_TRUE(std::any_of(modules.begin(), modules.end(), [&](const auto& module) {
            return module.imageBase <= range.begin &&
                   range.end <= module.imageBase + module.imageSize;
        })) << range.name;
    }
    EXPECT_GE(covered, 5) << "program, C library, C++ library, loader, kernel image";
}

TEST(ProcessModules, AChildsListEqualsTheOwnOne) {
    const ForkChild child([] { pause(); });
    std::map<std::uint64_t, LoadedModule> own;
    for (LoadedModule& module : platform::listModules(ownId())) {
        own.emplace(module.imageBase, std::move(module));
    }
    const auto modules = platform::listModules(child.id());
    EXPECT_EQ(modules.size(), own.size());
    for (const LoadedModule& module : modules) {
        const std::string path = textOf(module.path);
        ASSERT_TRUE(own.contains(module.imageBase)) << path;
        const LoadedModule& same = own[module.imageBase];
        EXPECT_EQ(module.imageSize, same.imageSize) << path;
        EXPECT_EQ(module.debugGuid, same.debugGuid) << path;
        EXPECT_EQ(fs::path(path).filename(), fs::weakly_canonical(textOf(same.path)).filename());
    }
    EXPECT_EQ(platform::moduleListVersion(child.id()), std::nullopt);
}

TEST(ProcessModules, AreReadWhereTheFirstThreadHasEnded) {
    const ForkChild child([] {
        pthread_t thread;
        pthread_create(&thread, nullptr, [](void*) -> void* { return pause(), nullptr; }, nullptr);
        syscall(SYS_exit, 0);
    });
    while (readAll("/proc/" + std::to_string(child.id()) + "/stat").find(") Z") ==
           std::string::npos) {
        std::this_thread::yield();
    }
    const auto modules = platform::listModules(child.id());
    EXPECT_EQ(modules.size(), platform::listModules(ownId()).size());
}

TEST(ProcessModules, AreEmptyWhereThereIsNothingToInspect) {
    EXPECT_TRUE(platform::listModules(0).empty());
    EXPECT_TRUE(platform::listModules(0xFFFFFFFF).empty());
    EXPECT_TRUE(platform::listModules(0x7FFFFFFF).empty());
    const ForkChild ended([] { _exit(0); });
    ended.waitForEnd();
    EXPECT_TRUE(platform::listModules(ended.id()).empty());
    EXPECT_EQ(getFrameDetails(ended.id(), 0x401000), L"");
    const ParkedThread noProcess;
    EXPECT_TRUE(platform::listModules(noProcess.id()).empty());
}

TEST(FrameDetails, DescribeTheSameCodeInEveryProcess) {
    // A function that no sanitizer puts its own in front of.
    const auto address = reinterpret_cast<unsigned long long>(&gnu_get_libc_version) + 1;
    Dl_info symbol;
    ASSERT_NE(dladdr(reinterpret_cast<void*>(&gnu_get_libc_version), &symbol), 0);
    const auto offset = address - reinterpret_cast<unsigned long long>(symbol.dli_fbase);
    std::wstringstream expected;
    expected << L"libc.so.6+0x" << std::hex << std::uppercase << offset << L'{';
    const std::wstring text = getFrameDetails(0, address);
    EXPECT_EQ(text.substr(0, text.find(L'{') + 1), expected.str());
    const ForkChild child([] { pause(); });
    EXPECT_EQ(getFrameDetails(child.id(), address), text);
    EXPECT_EQ(getFrameDetails(0, reinterpret_cast<unsigned long long>(&symbol)), L"");
    EXPECT_EQ(getFrameDetails(0, ~0ull), L"");
}

}  // namespace
}  // namespace ThreadUtilities
