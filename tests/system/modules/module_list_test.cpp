// The module lists against what others say: the loader, the memory map, the files' own notes.

#include <ThreadUtilities/StackTrace.h>
#include <dlfcn.h>
#include <gnu/libc-version.h>
#include <gtest/gtest.h>
#include <link.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "foundation/guid_text.h"
#include "foundation/text_conversion.h"
#include "platform/linux/process_map.h"
#include "platform/modules.h"
#include "support/copied_process.h"

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

/// The build-id of a file as readelf prints it, in lower-case digits; empty without one.
std::string buildIdByReadelf(const std::string& path) {
    const std::string command = "readelf -nW '" + path + "' 2>/dev/null";
    FILE* const pipe = popen(command.c_str(), "r");
    std::string id;
    char line[4096];
    while (fgets(line, sizeof(line), pipe) != nullptr) {
        const std::string_view view(line);
        const auto mark = view.find("Build ID: ");
        if (mark != std::string_view::npos) {
            id = view.substr(mark + 10);
            id.erase(id.find_last_not_of(" \n") + 1);
        }
    }
    pclose(pipe);
    return id;
}

std::string hexOf(const std::optional<platform::DebugGuid>& guid) {
    std::string text;
    for (const std::uint8_t byte : guid.value_or(platform::DebugGuid{})) {
        char digits[3];
        std::snprintf(digits, sizeof(digits), "%02x", byte);
        text += digits;
    }
    return text;
}

TEST(OwnModules, EqualTheLoadersList) {
    std::vector<std::pair<std::uint64_t, std::string>> expected;
    dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* state) {
            static_cast<decltype(expected)*>(state)->emplace_back(info->dlpi_addr, info->dlpi_name);
            return 0;
        },
        &expected);
    const auto modules = platform::listModules(ownId());
    ASSERT_EQ(modules.size(), expected.size());
    for (std::size_t index = 0; index < modules.size(); ++index) {
        const std::string path = textOf(modules[index].path);
        if (expected[index].second.empty()) {
            EXPECT_EQ(path, fs::read_symlink("/proc/self/exe").string());
        } else {
            EXPECT_EQ(path, expected[index].second);
        }
        EXPECT_EQ(modules[index].imageBase, expected[index].first) << path;
    }
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

TEST(OwnModules, GuidsAreTheBuildIdsOfTheFiles) {
    int compared = 0;
    for (const LoadedModule& module : platform::listModules(ownId())) {
        const std::string path = textOf(module.path);
        if (!fs::exists(path)) {
            continue;
        }
        std::string id = buildIdByReadelf(path);
        EXPECT_EQ(module.debugGuid.has_value(), !id.empty()) << path;
        id.resize(32, '0');
        EXPECT_EQ(hexOf(module.debugGuid), id) << path;
        ++compared;
    }
    EXPECT_GE(compared, 4);
}

TEST(ProcessModules, AChildsListEqualsTheOwnOne) {
    const CopiedProcess child([] { pause(); });
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
    const CopiedProcess child([] {
        pthread_t thread;
        pthread_create(
            &thread, nullptr, [](void*) -> void* { return pause(), nullptr; }, nullptr);
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
    const CopiedProcess ended([] { _exit(0); });
    ended.waitForEnd();
    EXPECT_TRUE(platform::listModules(ended.id()).empty());
    EXPECT_EQ(getFrameDetails(ended.id(), 0x401000), L"");
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
    const CopiedProcess child([] { pause(); });
    EXPECT_EQ(getFrameDetails(child.id(), address), text);
    EXPECT_EQ(getFrameDetails(0, reinterpret_cast<unsigned long long>(&symbol)), L"");
    EXPECT_EQ(getFrameDetails(0, ~0ull), L"");
}

}  // namespace
}  // namespace ThreadUtilities
